// The binary property-list writer shared by CFPropertyListCreateData.
#pragma once

#include "CFRuntime.hpp"

#include <string>
#include <vector>

namespace cf {

// Writes root and everything below it as a binary property list ("bplist00"). False with the reason
// for values that property lists cannot hold, non-string dictionary keys and nesting deeper than the
// reader accepts.
bool write_binary_plist(CFTypeRef root, std::vector<UInt8>& out, std::string& problem);

}  // namespace cf
