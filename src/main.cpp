#include "app/entry.h"

int main(int argc, char** argv) { return tavrin::run_program(argc, argv); }
