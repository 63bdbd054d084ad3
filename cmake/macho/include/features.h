// libstdc++'s configuration header asks for glibc's. Its answers matter to nothing that the bundle
// includes.
#pragma once
#define __GLIBC_PREREQ(major, minor) 0
