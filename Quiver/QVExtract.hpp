// The interface is <quiver/QVExtract.hpp>; inside the library, with the layouts it works on.
#pragma once

#include <quiver/QVExtract.hpp>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVVerify.hpp"
