# The README's example is examples/quickstart.cpp to the letter.
file(READ "${SOURCE_DIR}/README.md" readme)
file(READ "${SOURCE_DIR}/examples/quickstart.cpp" example)
string(FIND "${readme}" "```cpp\n${example}```" position)
if(position EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/quickstart.cpp as it is")
endif()
