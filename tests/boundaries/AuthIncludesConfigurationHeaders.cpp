#include "LibraryConfiguration.h"
#include "ostriolib/OstrioConfiguration.h"
#include "OstrioAuthManager.h"
