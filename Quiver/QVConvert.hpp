// The interface is <quiver/QVConvert.hpp>; inside the library, with the layouts it works on.
#pragma once

#include <quiver/QVConvert.hpp>

#include "Quiver/QVBackupContainer.hpp"
