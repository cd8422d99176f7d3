#include "ostriolib/OstrioAssets.h"
