#include "OstrioAuthManager.h"
