/* Exported functions of the metadata family (flags and accessors, stack
 * debug record, time and component names); included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_META_H
#define KRM_MBUF_MBUF_META_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_META_H */
