#include "sink.h"

#include <cctype>
#include <cinttypes>

namespace krm::tool {

// ---- text --------------------------------------------------------------------

// "key: " (or "- " inside a list); bBare leaves the space off for a head
// that ends its line.
void TextSink::Head(const char *pcKey, bool bBare) {
    std::fprintf(m_pOut, "%*s", static_cast<int>(2 * m_vInList.size()), "");
    if (!m_vInList.empty() && m_vInList.back()) {
        std::fputs(bBare ? "-" : "- ", m_pOut);
    } else {
        std::fprintf(m_pOut, bBare ? "%s:" : "%s: ", pcKey);
    }
}

void TextSink::Open(const char *pcKey) {
    Head(pcKey, true);
    std::fputc('\n', m_pOut);
    m_vInList.push_back(false);
}

void TextSink::List(const char *pcKey) {
    Head(pcKey, true);
    std::fputc('\n', m_pOut);
    m_vInList.push_back(true);
}

void TextSink::Close() {
    if (!m_vInList.empty()) {
        m_vInList.pop_back();
    }
}

void TextSink::Str(const char *pcKey, const std::string &strVal) {
    Head(pcKey);
    std::fprintf(m_pOut, "%s\n", strVal.c_str());
}

void TextSink::Num(const char *pcKey, std::uint64_t ullVal) {
    Head(pcKey);
    std::fprintf(m_pOut, "%" PRIu64 "\n", ullVal);
}

void TextSink::Word(const char *pcKey, std::uint32_t ulVal) {
    Head(pcKey);
    std::fprintf(m_pOut, "0x%08" PRIX32 "\n", ulVal);
}

void TextSink::Bytes(const char *pcKey, const std::uint8_t *p, std::size_t n) {
    Head(pcKey);
    std::fprintf(m_pOut, "%zu bytes\n", n);
    const int iIndent = static_cast<int>(2 * m_vInList.size() + 2);
    for (std::size_t ulRow = 0; ulRow < n; ulRow += 16) {
        std::fprintf(m_pOut, "%*s%04zx ", iIndent, "", ulRow);
        std::string strText;
        for (std::size_t i = ulRow; i < ulRow + 16; ++i) {
            if (i < n) {
                std::fprintf(m_pOut, " %02x", p[i]);
                strText += std::isprint(p[i]) != 0 ? static_cast<char>(p[i]) : '.';
            } else {
                std::fputs("   ", m_pOut);
            }
        }
        std::fprintf(m_pOut, "  |%s|\n", strText.c_str());
    }
}

void TextSink::Lines(const char *pcKey, const std::vector<std::string> &vLines) {
    if (vLines.empty()) {
        return;  // nothing to say: no heading either
    }
    Head(pcKey, true);
    std::fputc('\n', m_pOut);
    for (const auto &s : vLines) {
        std::fprintf(m_pOut, "%*s%s\n", static_cast<int>(2 * m_vInList.size() + 2), "", s.c_str());
    }
}

// ---- JSON ----------------------------------------------------------------------

std::string JsonQuote(const std::string &s) {
    std::string r = "\"";
    for (const char c : s) {
        const auto uc = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            r += '\\';
            r += c;
        } else if (uc < 0x20 || uc >= 0x7F) {
            char ac[8];
            (void)std::snprintf(ac, sizeof(ac), "\\u%04x", uc);
            r += ac;
        } else {
            r += c;
        }
    }
    return r + "\"";
}

void JsonSink::Key(const char *pcKey) {
    if (m_vLevels.empty()) {
        return;
    }
    Level &stL = m_vLevels.back();
    if (!stL.bFirst) {
        std::fputc(',', m_pOut);
    }
    stL.bFirst = false;
    if (!stL.bList) {
        std::fprintf(m_pOut, "%s:", JsonQuote(pcKey).c_str());
    }
}

void JsonSink::Open(const char *pcKey) {
    if (!m_bStarted) {
        m_bStarted = true;
    } else {
        Key(pcKey);
    }
    std::fputc('{', m_pOut);
    m_vLevels.push_back({false, true});
}

void JsonSink::List(const char *pcKey) {
    Key(pcKey);
    std::fputc('[', m_pOut);
    m_vLevels.push_back({true, true});
}

void JsonSink::Close() {
    if (m_vLevels.empty()) {
        return;
    }
    std::fputc(m_vLevels.back().bList ? ']' : '}', m_pOut);
    m_vLevels.pop_back();
}

void JsonSink::Str(const char *pcKey, const std::string &strVal) {
    Key(pcKey);
    std::fputs(JsonQuote(strVal).c_str(), m_pOut);
}

void JsonSink::Num(const char *pcKey, std::uint64_t ullVal) {
    Key(pcKey);
    std::fprintf(m_pOut, "%" PRIu64, ullVal);
}

void JsonSink::Word(const char *pcKey, std::uint32_t ulVal) {
    Key(pcKey);
    std::fprintf(m_pOut, "\"0x%08" PRIX32 "\"", ulVal);
}

void JsonSink::Bytes(const char *pcKey, const std::uint8_t *p, std::size_t n) {
    Key(pcKey);
    std::fputc('"', m_pOut);
    for (std::size_t i = 0; i < n; ++i) {
        std::fprintf(m_pOut, "%02x", p[i]);
    }
    std::fputc('"', m_pOut);
}

void JsonSink::Lines(const char *pcKey, const std::vector<std::string> &vLines) {
    List(pcKey);
    for (const auto &s : vLines) {
        Str("", s);
    }
    Close();
}

void JsonSink::Finish() {
    while (!m_vLevels.empty()) {
        Close();
    }
    std::fputc('\n', m_pOut);
}

}  // namespace krm::tool
