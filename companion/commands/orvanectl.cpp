#include "companion/commands/Commands.h"

int main(int argc, char** argv) { return orvane::run_orvanectl(argc, argv); }
