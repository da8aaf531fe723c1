// Code signatures of executable files.
#pragma once

#include "base/system_records.h"

namespace korvane::platform {

/// Verifies the code signature of the file at `path`; Unknown when that cannot be told. Any thread, and
/// several at once, as all of these. Linux: not supported.
/// Windows: WinVerifyTrust on the file, then on the catalogs that have its hash (CryptCATAdmin...).
SignatureStatus verifySignature(const QString& path);

/// Whether verifySignature() can have any other answer than Unknown. Linux: false. Windows: true.
bool canVerifySignatures();

/// The name of the signer of the file at `path`; empty when it has none. Linux: not
/// supported. Windows: CryptQueryObject, on the file, else on the catalog that has its hash.
QString signerName(const QString& path);

} // namespace korvane::platform
