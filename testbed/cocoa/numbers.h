/* Numbers of every type code, for tests. Mac OS X keeps fewer types than it has constructors (see
 * README.md), and so does the testbed; other plug-ins may bring numbers of the rest.
 */
#pragma once

#include <objc/objc.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An NSNumber, autoreleased, with one of the codes c C s S i I l L q Q. Its value is as much of the
 * 64 bits as the code has room for. Threads: any. */
id numbers_coded(char code, long long bits);

#ifdef __cplusplus
}
#endif
