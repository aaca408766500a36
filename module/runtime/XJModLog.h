// The one logging call of the module. Levels: 1 lifecycle and device events, 4 failures and
// refused input, 8 detail. The line goes to the host's runtime; without one it is dropped.
#pragma once

// printf conventions; the text is cut at 4095 bytes. Any thread. A line for which there is no
// memory is dropped: logging never fails its caller.
__attribute__((format(printf, 2, 3))) void XJModLog(int level, const char* fmt, ...);
