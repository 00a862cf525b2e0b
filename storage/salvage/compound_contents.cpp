// A link that was overwritten leads nearly always to a chain of another length. So a chain that agrees with
// its stream's size is believed first, and what a broken one runs into stays with its owner.

#include "storage/salvage/compound_contents.h"

#include <algorithm>
#include <tuple>

namespace Vexel::Detail::Salvage {

namespace {

const char* reasonOf(ChainTable::End end) noexcept {
    switch (end) {
    case ChainTable::End::Circle:
        return "its chain of sectors runs in a circle";
    case ChainTable::End::Behind:
        return "its chain of sectors leads behind the end of the file";
    case ChainTable::End::Taken:
        return "its chain of sectors runs into what belongs to another stream or a table";
    case ChainTable::End::Broken:
        return "its chain of sectors breaks off";
    case ChainTable::End::Unknown:
        return "the part of the table with its chain of sectors is lost";
    case ChainTable::End::Clean:
        return "its chain of sectors is too short";
    case ChainTable::End::More:
        break;
    }
    return "its last sector is cut off";
}

} // namespace

ChainTable::Walk ContentsClaims::measure(std::uint32_t number, std::uint64_t& stepsLeft) {
    output_.progress(0);
    const Element& element = elements_[number];
    const std::uint64_t most = std::min<std::uint64_t>(sectorsOf(element), std::uint64_t{table_.count()} + 1);
    const auto walk = table_.walk(element.entry.start, std::min(most, stepsLeft), number,
                                  ChainTable::LostLinks::End, [](std::uint32_t) {});
    stepsLeft -= std::min(stepsLeft, walk.length + 1);
    return walk;
}

void ContentsClaims::settle(const std::vector<std::uint32_t>& numbers, std::uint64_t& stepsLeft) {
    std::vector<Candidate> exact;
    std::vector<std::uint32_t> longer;
    std::vector<std::uint32_t> rest;
    for (const std::uint32_t number : numbers) {
        Element& element = elements_[number];
        if (element.entry.size == 0) {
            element.state = SalvageState::Whole;
            continue;
        }
        if (stepsLeft == 0) {
            element.reason = "the streams claim to be far larger than the file";
            continue;
        }
        const auto walk = measure(number, stepsLeft);
        if (walk.length < sectorsOf(element))
            rest.push_back(number);
        else if (walk.end == ChainTable::End::Clean)
            exact.push_back({number, element.isStray, !element.isReached && number != 0, walk.jumps});
        else
            longer.push_back(number);
    }
    std::sort(exact.begin(), exact.end(), [](const Candidate& a, const Candidate& b) {
        return std::tie(a.isStray, a.isOrphan, a.jumps, a.number) <
               std::tie(b.isStray, b.isOrphan, b.jumps, b.number);
    });
    for (const Candidate& candidate : exact)
        if (!claimWhole(candidate.number))
            rest.push_back(candidate.number);
    for (const std::uint32_t number : longer)
        if (!claimWhole(number))
            rest.push_back(number);
    for (const std::uint32_t number : rest)
        claimRest(number);
}

bool ContentsClaims::claimWhole(std::uint32_t number) {
    output_.progress(0);
    Element& element = elements_[number];
    std::uint64_t rest = element.entry.size;
    const auto walk = table_.walk(element.entry.start, sectorsOf(element), number, ChainTable::LostLinks::End,
                                  [&](std::uint32_t sector) { rest -= std::min(rest, bytesThere_(sector)); });
    if (walk.length < sectorsOf(element) || rest > 0)
        return false;
    table_.walk(element.entry.start, sectorsOf(element), number, ChainTable::LostLinks::End,
                [&](std::uint32_t sector) { table_.setOwner(sector, number); });
    element.state = SalvageState::Whole;
    element.there = element.entry.size;
    return true;
}

void ContentsClaims::claimRest(std::uint32_t number) {
    output_.progress(0);
    Element& element = elements_[number];
    bool isWholeSoFar = true;
    // What a stray element refers to may long be another's.
    const auto walk =
        table_.walk(element.entry.start, sectorsOf(element), number, ChainTable::LostLinks::AreGuessed,
                    [&](std::uint32_t sector) {
                        const std::uint64_t wanted =
                            std::min<std::uint64_t>(element.entry.size - element.there, sectorBytes_);
                        const std::uint64_t has = isWholeSoFar ? std::min(wanted, bytesThere_(sector)) : 0;
                        table_.setOwner(sector, number);
                        element.there += has;
                        isWholeSoFar = isWholeSoFar && has == wanted;
                    });
    element.isGuessed = walk.isGuessed;
    element.state = element.there > 0 ? SalvageState::CutShort : SalvageState::Lost;
    element.isHidden = element.isStray && walk.end == ChainTable::End::Taken;
    element.reason = reasonOf(isWholeSoFar ? walk.end : ChainTable::End::More);
    if (walk.isGuessed)
        element.reason = "its chain of sectors is lost with the table; it is taken to lie in one piece";
}

} // namespace Vexel::Detail::Salvage
