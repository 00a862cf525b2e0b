#pragma once

#include "support/compound_file.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace Support {

/// All of a storage by paths: "a=bytes b/= b/c=bytes " for the stream "a" and the storage "b" with the stream
/// "c", with "class=7" first where there is a class that begins with this number.
inline std::string describe(IStorage* storage) {
    STATSTG info{};
    EXPECT_EQ(storage->Stat(&info, STATFLAG_NONAME), S_OK);
    std::map<std::wstring, std::string> all;
    for (const auto& [path, contents] : readElements(storage))
        EXPECT_TRUE(all.emplace(path, contents).second) << "one name twice";
    all.erase(L".clsid"); // where a package keeps what the system has in the directory entry
    std::string text = info.clsid == CLSID_NULL ? "" : "class=" + std::to_string(info.clsid.Data1) + ' ';
    for (const auto& [path, contents] : all)
        text += std::string(path.begin(), path.end()) + '=' + contents + ' ';
    return text;
}

} // namespace Support
