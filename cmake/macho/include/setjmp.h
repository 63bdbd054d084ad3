#pragma once

// 18 ints: i386 Mac OS X.
typedef int jmp_buf[18];
extern "C" int _setjmp(jmp_buf buffer) __attribute__((returns_twice));
