#include "OstrioClient.h"
