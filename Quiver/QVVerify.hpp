// The interface is <quiver/QVVerify.hpp>; inside the library, with the layouts it works on.
#pragma once

#include <quiver/QVVerify.hpp>

#include "Quiver/QVBackupContainer.hpp"

namespace Quiver {

// The problem of a stored file whose bytes, hashed as they were copied, are not those whose digest
// the manifest records.
QVProblem QVProblemOfCopiedDigest(const Backup& backup, const Entry& entry, uint64_t storedLength);

}  // namespace Quiver
