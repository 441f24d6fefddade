/* Exported functions of the family: drop-reason and error-code texts, packet-trace conditions.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_DIAG_H
#define KRM_MBUF_MBUF_DIAG_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_DIAG_H */
