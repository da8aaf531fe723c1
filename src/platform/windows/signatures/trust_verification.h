// Verification by the system's trust provider, of a file and of the catalogs that have its hash.
#pragma once

#include "base/system_records.h"
#include "platform/windows/signatures/signed_file.h"

#include <windows.h>

#include <wintrust.h>

namespace korvane::windows_platform {

/// Verifies the signature inside `file`; Unsigned where there is none. No window, no network, no
/// revocation.
SignatureStatus verifyEmbedded(const SignedFile& file);

/// Verifies a file against a catalog that has its hash.
SignatureStatus verifyInCatalog(WINTRUST_CATALOG_INFO& catalog);

/// What the system's catalogs say of a file.
struct CatalogAnswer
{
    SignatureStatus status = SignatureStatus::Unsigned; ///< Unsigned where none has it.
    QString path;                                       ///< That of the catalog; empty then.
};

/// Looks for `file` in the catalogs, by its SHA-256 and then by its SHA-1: the first that is trusted, or
/// else the last that has it. Unknown where they cannot be searched.
CatalogAnswer findInCatalogs(const SignedFile& file);

/// What a result of WinVerifyTrust says of the file; `lastError` is what the thread's last error was
/// then. Unsigned where the file has no signature that the provider knows; Unknown for whatever may be
/// otherwise on another day: a chain that cannot be built offline, and failures of the system.
SignatureStatus statusOf(LONG result, DWORD lastError);

} // namespace korvane::windows_platform
