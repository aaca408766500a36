// Where the module is, unless the user says.
#pragma once

#include <string>

namespace host {

// Beside the program, or in the library folder of the tree that the program stands in, which may
// have been moved; else where it was to be installed. As the program may run as root, a file counts
// only if it belongs to root or to whom the program belongs to.
std::string FindModule();

}  // namespace host
