// Sections and properties both are pieces of a whole that a table of offsets points at, in any order and with
// gaps. Such a whole is cut at the offsets and joined again in the same order, each piece at the same place
// within its four bytes, so that what was not changed keeps its bytes.

#include "storage/properties/property_bytes.h"

#include <algorithm>
#include <ranges>

namespace Vexel::Detail {

namespace {

std::vector<Block*> inOrder(std::vector<Block>& blocks) {
    std::vector<Block*> order;
    order.reserve(blocks.size());
    for (Block& block : blocks)
        order.push_back(&block);
    std::ranges::stable_sort(order, {}, &Block::offset);
    return order;
}

} // namespace

std::optional<Blocks> splitBlocks(ByteView whole, std::size_t tableEnd,
                                  const std::vector<std::size_t>& offsets) {
    Blocks blocks;
    for (const std::size_t offset : offsets)
        blocks.list.push_back({offset, {}});
    std::size_t end = whole.size();
    const std::vector<Block*> order = inOrder(blocks.list);
    for (Block* const block : std::views::reverse(order)) {
        const std::size_t offset = block->offset;
        if (offset < tableEnd || offset > end || end - offset < 4)
            return std::nullopt;
        block->bytes = whole.subspan(offset, end - offset);
        end = offset;
    }
    blocks.gap = whole.subspan(tableEnd, end - tableEnd);
    return blocks;
}

void joinBlocks(Blocks& blocks, std::vector<unsigned char>& bytes) {
    appendBytes(bytes, blocks.gap.data(), blocks.gap.size());
    for (Block* const block : inOrder(blocks.list)) {
        const std::size_t place = block->offset == kNewBlock ? 0 : block->offset % 4;
        while (bytes.size() % 4 != place)
            bytes.push_back(0);
        block->offset = bytes.size();
        appendBytes(bytes, block->bytes.data(), block->bytes.size());
    }
}

} // namespace Vexel::Detail
