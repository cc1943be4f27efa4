// The interface is <quiver/QVManifestCSV.hpp>.
#pragma once

#include <quiver/QVManifestCSV.hpp>
