#include "runner.h"

int main(int count, char** arguments) { return runner::main(count, arguments); }
