// The search the code tables share, exposed so that its rule (no early exit:
// of two rows with the same code the later one wins) can be checked on a
// table that has such a pair.
#pragma once

#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::diag {

// The text of the last row of ulCode among ulRows rows; nullptr if none.
inline const char *FindCodeText(const MBUF_PADS_ERRCODE_S *pstRows, std::uint32_t ulRows,
                                std::uint32_t ulCode) {
    const char *pcText = nullptr;
    for (std::uint32_t i = 0; i < ulRows; ++i) {
        if (pstRows[i].ulCode == ulCode) {
            pcText = pstRows[i].pcStr;
        }
    }
    return pcText;
}

}  // namespace krm::diag
