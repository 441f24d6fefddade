// inspect inputs that fuzzing found undefined (fuzz/corpus/inspect/
// regress-empty-node-piece): a pipe package whose node piece is empty is
// refused with its reason, without copying from the empty piece.
#include <gtest/gtest.h>

#include "wire.h"

namespace krm::tool {
namespace {

TEST(InspectFuzzRegressionTest, AnEmptyNodePieceIsNotALiveNode) {
    const std::vector<std::uint8_t> pkg = EncodePackage({{Piece{}}});
    Decoded dec;
    const auto reason = Decode(pkg.data(), pkg.size(), &dec);
    ASSERT_TRUE(reason.has_value());
    EXPECT_EQ(*reason, "pipe package: node 0 magic 0x00, not a live node");
}

}  // namespace
}  // namespace krm::tool
