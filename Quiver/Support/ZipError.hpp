// Errors for minizip result codes, attached as the underlying error of the library's zip failures.
#pragma once

#include <string_view>

#include "Quiver/CF/Error.hpp"

namespace Quiver::Support {

// An error in the domain "Quiver.MinizipErrorDomain" whose code is the minizip result and whose
// description names it, followed by `message`.
CF::Error zipCreateError(int result, std::string_view message);

}  // namespace Quiver::Support
