#include "ostriolib/IOstrioAuthManager.h"
