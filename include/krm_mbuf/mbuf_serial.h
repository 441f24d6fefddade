/* Exported functions of the family: TLV stream, serial image, external buffers for received nodes, external data blocks.
 * Included by krm_mbuf/mbuf.h. */
#ifndef KRM_MBUF_MBUF_SERIAL_H
#define KRM_MBUF_MBUF_SERIAL_H

#ifndef KRM_MBUF_MBUF_H
#error "include krm_mbuf/mbuf.h"
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* KRM_MBUF_MBUF_SERIAL_H */
