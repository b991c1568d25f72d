#pragma once

#include <cstdarg>
#include <cstddef>

namespace brenholt::monitoring_modules::opcua {

// Expands a printf format of the OPC UA stack's log lines into `out`, which has room for
// `room` bytes, and writes a terminating zero. Knows the conversions that the stack uses
// on its trace path (d i u x X c s %, with a zero flag, a width, a precision for strings
// and the length modifiers); gives the same text as vsnprintf for them, at a fraction of
// its cost. Returns the length without the zero, or -1 when the format holds anything
// else or the text does not fit: the caller then expands it with vsnprintf. `args` is
// left as it was.
int format_stack_line(char* out, std::size_t room, const char* format, va_list args);

}  // namespace brenholt::monitoring_modules::opcua
