#include "host_internal.h"
#include "pipe/pipe_internal.h"

extern "C" void KRM_HOST_Reset(void) {
    krm::host::pipe::ResetPipes();
    krm::host::pipe::ResetMessages();
    krm::host::pipe::ResetTrace();
    krm::host::ResetFaults();
    krm::host::ResetReports();
    krm::host::ResetClocks();
    krm::host::ResetAttemptCount();
    KRM_HOST_ResetMutexFaults();
}
