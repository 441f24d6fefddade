/* Exported functions of the family: Internet checksums and TCP segmentation.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_OFFLOAD_H
#define KRM_MBUF_MBUF_OFFLOAD_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_OFFLOAD_H */
