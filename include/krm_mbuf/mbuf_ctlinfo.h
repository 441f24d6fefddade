/* Exported functions of the control-information family (the block, its
 * records and packet tags); included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_CTLINFO_H
#define KRM_MBUF_MBUF_CTLINFO_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_CTLINFO_H */
