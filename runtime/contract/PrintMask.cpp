// Prints the debug mask that a process starts with.
#include <solvart/Debug.h>

#include <cstdio>

int main() { return std::printf("%#x\n", basepp_dbg_mask_) < 0 ? 1 : 0; }
