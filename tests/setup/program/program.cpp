// Says where it is, in a sentence that takes the libraries of the system root.
#include <cstdio>
#include <string>

std::string folder();

int main() { printf("runs in %s\n", folder().c_str()); }
