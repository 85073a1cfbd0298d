#pragma once

namespace tavrin {

// The whole program: one-word forms, options, output creation, input
// recognition and the hand-over to one driver. Returns the exit status.
int run_program(int argc, char** argv);

}  // namespace tavrin
