// Process entry of the tarnhold service.
#include "main.h"

int main(int argc, char **argv) { return mainRun(argc, argv); }
