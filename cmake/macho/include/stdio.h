#pragma once
#include <stddef.h>

extern "C" int snprintf(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
