#include "engine/codec/VXWorker.h"

int main(int argc, char **argv) { return vx::workerMain(argc, argv); }
