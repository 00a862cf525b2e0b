#pragma once

#include "document.h"
#include "tree_comparison.h"

#include <string>

namespace Vexel::Tool {

/// The class that a storage's contents belong to; the null one when it says nothing. `label` names the
/// storage in failures.
CLSID classOf(const StorageRef& storage, const std::wstring& label);

/// Everything that is in a document, without contents. The streams in which packages keep their storages'
/// classes are left out; one that cannot be read goes to `onFault`. Throws what Document::walk does.
TreeListing listDocument(const Document& document, const Document::FaultHandler& onFault);

/// Reads the contents that are wanted, one stream after the other and each in pieces. What cannot be read
/// goes to `onFault`.
void readWanted(const Document& document, TreeListing& listing, const Document::FaultHandler& onFault);

/// How many bytes that will read.
unsigned long long wantedBytes(const TreeListing& listing);

} // namespace Vexel::Tool
