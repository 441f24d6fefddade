#include "host_internal.h"

extern "C" void KRM_HOST_Reset(void) {
    krm::host::ResetFaults();
    krm::host::ResetReports();
    krm::host::ResetClocks();
    krm::host::ResetAttemptCount();
    KRM_HOST_ResetMutexFaults();
}
