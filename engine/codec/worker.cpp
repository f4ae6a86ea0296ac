#include "engine/codec/VXTranscode.h"
#include "engine/codec/VXWorkerServer.h"

int main(int argc, char **argv)
{
    vx::configureProcess();
    return vx::workerMain(argc, argv);
}
