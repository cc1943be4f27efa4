// What appendable files need of the file manager beyond its public functions.
#pragma once

class QVFileClass;

namespace Quiver::FileManager {

// Counts one more reference for the file's reference digest; the caller holds Quiver::GlobalLock().
void RegisterReferenceLocked(const QVFileClass& file);

}  // namespace Quiver::FileManager
