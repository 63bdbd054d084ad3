#pragma once
#include <stddef.h>

extern "C" {
void* memcpy(void* to, const void* from, size_t size);
void* memset(void* to, int byte, size_t size);
size_t strlen(const char* text);
int strcmp(const char* left, const char* right);
}
