#include "api/http_server.h"
