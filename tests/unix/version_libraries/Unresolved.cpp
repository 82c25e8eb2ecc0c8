// A library that can be loaded only as long as nobody insists on its functions being found.

extern "C" {
void velahost_test_nobody_defines_this();

[[gnu::visibility("default")]] extern const char* Unresolved_LibraryVersion;
const char* Unresolved_LibraryVersion = "Unresolved 1.0";

[[gnu::visibility("default")]] void velahost_test_calls_it()
{
    velahost_test_nobody_defines_this();
}
}
