#include "internal/layout.h"
#include "krm_mbuf/mbuf.h"

// Declared with MBUF_API in mbuf.h; the declaration gives it default visibility.
extern "C" {
const char g_acMbufVersion[] = "@(#) MBUF_Version 1.1.0 PLX:C01B051 QRD:C00B301";
}
