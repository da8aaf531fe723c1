// The catalogs of the system, which sign most of its own files.
#pragma once

#include "base/system_records.h"
#include "platform/windows/signatures/signed_file.h"

namespace korvane::windows_platform {

/// What the catalogs say of a file.
struct CatalogAnswer
{
    SignatureStatus status = SignatureStatus::Unsigned; ///< Unsigned where none has it.
    QString path;                                       ///< That of the catalog; empty then.
};

/// Looks for `file` in the catalogs, by its SHA-256 and then by its SHA-1: the first that is trusted, or
/// else the last that has it. Unknown where they cannot be searched.
CatalogAnswer findInCatalogs(const SignedFile& file);

} // namespace korvane::windows_platform
