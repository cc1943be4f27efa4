// The interface is <quiver/QVManifestMBDB.hpp>; inside the library, with the layouts it works on.
#pragma once

#include <quiver/QVManifestMBDB.hpp>

#include "Quiver/QVManifest.hpp"
#include "Quiver/QVManifestEntry.hpp"
