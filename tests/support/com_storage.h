#pragma once

#include "support/streams.h"

#include <map>
#include <string>
#include <utility>

namespace Support {

/// All of a storage, depth first: "a=bytes b={c=bytes } " for the stream "a" and the storage "b" with the
/// stream "c", with "class=7" first where there is a class that begins with this number.
inline std::string describe(IStorage* storage) {
    STATSTG info{};
    EXPECT_EQ(storage->Stat(&info, STATFLAG_NONAME), S_OK);
    std::map<std::wstring, std::string> children;
    Microsoft::WRL::ComPtr<IEnumSTATSTG> list;
    EXPECT_EQ(storage->EnumElements(0, nullptr, 0, &list), S_OK);
    for (STATSTG entry{}; list->Next(1, &entry, nullptr) == S_OK;) {
        const std::wstring name = entry.pwcsName;
        CoTaskMemFree(entry.pwcsName);
        constexpr DWORD kMode = STGM_READ | STGM_SHARE_EXCLUSIVE;
        Microsoft::WRL::ComPtr<IStorage> child;
        Microsoft::WRL::ComPtr<IStream> stream;
        std::string what;
        if (entry.type == STGTY_STORAGE) {
            EXPECT_EQ(storage->OpenStorage(name.c_str(), nullptr, kMode, nullptr, 0, &child), S_OK);
            what = '{' + describe(child.Get()) + '}';
            EXPECT_EQ(child->Stat(&entry, STATFLAG_DEFAULT), S_OK);
            EXPECT_EQ(entry.pwcsName, name);
            CoTaskMemFree(entry.pwcsName);
        } else {
            EXPECT_EQ(storage->OpenStream(name.c_str(), nullptr, kMode, 0, &stream), S_OK);
            what = bytesOf(stream.Get());
            EXPECT_EQ(what.size(), entry.cbSize.QuadPart);
        }
        EXPECT_TRUE(children.emplace(name, what).second) << "one name twice";
    }
    children.erase(L".clsid"); // where a package keeps what the system has in the directory entry
    std::string text = info.clsid == CLSID_NULL ? "" : "class=" + std::to_string(info.clsid.Data1) + ' ';
    for (const auto& [name, what] : children)
        text += std::string(name.begin(), name.end()) + '=' + what + ' ';
    return text;
}

} // namespace Support
