#pragma once

namespace bench {

/// Two that this program may use; the same one where the machine has no more.
enum class Processor { First, Second };

/// Binds the calling thread, and the threads that it starts from now on, to that processor.
void RunOn(Processor processor);

} // namespace bench
