// One walk over what a command shows, two renderings: indented text for
// people and one JSON document for scripts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace krm::tool {

class Sink {
  public:
    virtual ~Sink() = default;
    // Keys are ignored inside arrays.
    virtual void Open(const char *pcKey) = 0;  // an object
    virtual void List(const char *pcKey) = 0;  // an array
    virtual void Close() = 0;
    virtual void Str(const char *pcKey, const std::string &strVal) = 0;
    virtual void Num(const char *pcKey, std::uint64_t ullVal) = 0;
    // A 32-bit word shown in hex (a JSON string "0x...", so it keeps its width).
    virtual void Word(const char *pcKey, std::uint32_t ulVal) = 0;
    // Raw bytes: a hex dump in text, a hex string in JSON.
    virtual void Bytes(const char *pcKey, const std::uint8_t *p, std::size_t n) = 0;
    virtual void Lines(const char *pcKey, const std::vector<std::string> &vLines) = 0;
    virtual void Finish() = 0;
};

class TextSink final : public Sink {
  public:
    explicit TextSink(std::FILE *pOut) : m_pOut(pOut) {}
    void Open(const char *pcKey) override;
    void List(const char *pcKey) override;
    void Close() override;
    void Str(const char *pcKey, const std::string &strVal) override;
    void Num(const char *pcKey, std::uint64_t ullVal) override;
    void Word(const char *pcKey, std::uint32_t ulVal) override;
    void Bytes(const char *pcKey, const std::uint8_t *p, std::size_t n) override;
    void Lines(const char *pcKey, const std::vector<std::string> &vLines) override;
    void Finish() override {}

  private:
    void Head(const char *pcKey, bool bBare = false);
    std::FILE *m_pOut;
    std::vector<bool> m_vInList;  // per level: inside an array
};

class JsonSink final : public Sink {
  public:
    explicit JsonSink(std::FILE *pOut) : m_pOut(pOut) {}
    void Open(const char *pcKey) override;
    void List(const char *pcKey) override;
    void Close() override;
    void Str(const char *pcKey, const std::string &strVal) override;
    void Num(const char *pcKey, std::uint64_t ullVal) override;
    void Word(const char *pcKey, std::uint32_t ulVal) override;
    void Bytes(const char *pcKey, const std::uint8_t *p, std::size_t n) override;
    void Lines(const char *pcKey, const std::vector<std::string> &vLines) override;
    void Finish() override;

  private:
    void Key(const char *pcKey);
    std::FILE *m_pOut;
    struct Level {
        bool bList;
        bool bFirst;
    };
    std::vector<Level> m_vLevels;
    bool m_bStarted = false;
};

// A JSON string literal for s, quotes included.
std::string JsonQuote(const std::string &s);

}  // namespace krm::tool
