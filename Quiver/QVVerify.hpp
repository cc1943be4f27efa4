// The interface is <quiver/QVVerify.hpp>; inside the library, with the layouts it works on.
#pragma once

#include <quiver/QVVerify.hpp>

#include "Quiver/QVBackupContainer.hpp"
