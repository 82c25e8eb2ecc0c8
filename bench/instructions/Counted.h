#pragma once

/// Calls `part` with `context`. Instructions are counted in here and in what it calls, nowhere
/// else.
extern "C" [[gnu::noinline]] void CountedPart(void (*part)(void*), void* context);

namespace instructions {

template <typename Part>
void Count(Part part)
{
    CountedPart([](void* context) { (*static_cast<Part*>(context))(); }, &part);
}

/// Counts `operations` calls, which get their numbers from 0. As many calls go before that, so that
/// nothing of what happens only once is counted. Returns `operations`.
template <typename Operation>
int CountEach(int operations, Operation operation)
{
    const auto repeat = [&] {
        for (int i = 0; i < operations; ++i) {
            operation(i);
        }
    };
    repeat();
    Count(repeat);
    return operations;
}

} // namespace instructions
