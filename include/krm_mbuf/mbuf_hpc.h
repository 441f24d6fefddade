/* Exported functions of the family: packets to and from the forwarding path's vectors.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_HPC_H
#define KRM_MBUF_MBUF_HPC_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_HPC_H */
