#pragma once

// The worker program's side: a small server that forks one child per run
// (VXWorkerChild.h) for the program that started it (VXZygote.h).

namespace vx {

// The worker program's whole main.
int workerMain(int argc, char **argv);

} // namespace vx
