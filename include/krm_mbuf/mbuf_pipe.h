/* Exported functions of the family: sending packets through pipes and rebuilding them on receipt.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_PIPE_H
#define KRM_MBUF_MBUF_PIPE_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_PIPE_H */
