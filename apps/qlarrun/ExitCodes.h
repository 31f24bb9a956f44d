#pragma once

// Exit statuses of qlarrun. Scripts test them, so a value never changes its
// meaning; new kinds of failure get new numbers.
enum ExExitCode {
    ExitOk = 0,
    ExitUsage = 1,   // the command line cannot be understood
    ExitInput = 2,   // a picture file, camera description, chain document or node name cannot be read or found
    ExitChain = 3,   // the plug-in folder cannot be loaded, or the chain refuses its input
    ExitOutput = 4,  // pictures or the chain document cannot be written
    ExitStrict = 5   // --strict: a frame did not become a written output of every node's work
};
