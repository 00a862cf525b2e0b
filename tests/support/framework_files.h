#pragma once

#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// Short ways with the application framework's exceptions, files and archives.
namespace Support {

/// The cause, or another field, of the exception of this class that `action` raises; -1 if it raises none.
template <class Exception, class Number = int>
Number raised(const std::function<void()>& action, Number Exception::*field = &Exception::m_cause) {
    try {
        action();
    } catch (Exception* exception) {
        const Number number = exception->*field;
        exception->Delete();
        return number;
    }
    return -1;
}

/// All bytes of a file.
inline std::string contentsOf(CFile& file) {
    std::string bytes(static_cast<std::size_t>(file.GetLength()), '\0');
    file.SeekToBegin();
    EXPECT_EQ(file.Read(bytes.data(), static_cast<UINT>(bytes.size())), bytes.size());
    return bytes;
}

/// What `store` writes into an archive.
inline std::string stored(const std::function<void(CArchive&)>& store) {
    CMemFile file;
    CArchive archive(&file, CArchive::store);
    store(archive);
    archive.Close();
    return contentsOf(file);
}

/// Does something with an archive over these bytes.
inline void loadFrom(std::string bytes, const std::function<void(CArchive&)>& load) {
    CMemFile file(reinterpret_cast<BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()));
    CArchive archive(&file, CArchive::load);
    load(archive);
}

} // namespace Support
