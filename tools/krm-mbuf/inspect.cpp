// inspect: decode any wire form from a file or standard input.
#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "show.h"
#include "wire.h"

namespace krm::tool {
namespace {

// Inputs beyond this are not a packet form the library writes.
constexpr std::size_t kMaxInput = 64u << 20;

bool ReadAll(const std::string &strFile, std::vector<std::uint8_t> &v) {
    std::FILE *pIn = strFile == "-" ? stdin : std::fopen(strFile.c_str(), "rb");
    if (pIn == nullptr) {
        Complain("cannot open " + strFile);
        return false;
    }
    std::uint8_t auc[65536];
    std::size_t n = 0;
    while ((n = std::fread(auc, 1, sizeof(auc), pIn)) != 0 && v.size() <= kMaxInput) {
        v.insert(v.end(), auc, auc + n);
    }
    const bool bErr = std::ferror(pIn) != 0;
    if (pIn != stdin) {
        std::fclose(pIn);
    }
    if (bErr || v.size() > kMaxInput) {
        Complain(bErr ? "read error on " + strFile : strFile + ": more than 64 MiB");
        return false;
    }
    return true;
}

}  // namespace

int Inspect(const InspectArgs &stArgs) {
    std::vector<std::uint8_t> v;
    if (!ReadAll(stArgs.strFile, v)) {
        return kExitBadInput;
    }
    Decoded stDec;
    if (auto oErr = Decode(v.data(), v.size(), &stDec)) {
        Complain(stArgs.strFile + ": " + *oErr);
        return kExitBadInput;
    }
    std::unique_ptr<Sink> pOut;
    if (stArgs.bJson) {
        pOut = std::make_unique<JsonSink>(stdout);
    } else {
        pOut = std::make_unique<TextSink>(stdout);
    }
    ShowDecoded(stDec, *pOut);
    return kExitOk;
}

void Complain(const std::string &strWhat) {
    std::fprintf(stderr, "krm-mbuf: %s\n", strWhat.c_str());
}

}  // namespace krm::tool
