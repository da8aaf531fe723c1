// WinVerifyTrust, and what its results mean.
#include "platform/windows/signatures/trust_verification.h"

#include "platform/windows/sys/text.h"

#include <softpub.h>

namespace korvane::windows_platform {

namespace {

constexpr DWORD withoutMd2AndMd4 = 0x2000; // WTD_DISABLE_MD2_MD4, which some headers lack.

/// Verifies what `data` has been pointed to.
SignatureStatus verify(WINTRUST_DATA& data)
{
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const HWND nobody = static_cast<HWND>(INVALID_HANDLE_VALUE); // Nobody is to be asked.
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwProvFlags = WTD_CACHE_ONLY_URL_RETRIEVAL | WTD_REVOCATION_CHECK_NONE | withoutMd2AndMd4;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    const LONG result = WinVerifyTrust(nobody, &action, &data);
    const SignatureStatus status = statusOf(result, GetLastError());
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(nobody, &action, &data);
    return status;
}

bool isNoSignature(DWORD code)
{
    return code == static_cast<DWORD>(TRUST_E_NOSIGNATURE) ||
           code == static_cast<DWORD>(TRUST_E_SUBJECT_FORM_UNKNOWN) ||
           code == static_cast<DWORD>(TRUST_E_PROVIDER_UNKNOWN);
}

} // namespace

SignatureStatus statusOf(LONG result, DWORD lastError)
{
    switch (result) {
    case ERROR_SUCCESS:
        return SignatureStatus::Trusted;
    case TRUST_E_NOSIGNATURE: // Also for files that could not be read: the last error tells.
        return isNoSignature(lastError) ? SignatureStatus::Unsigned : SignatureStatus::Unknown;
    case TRUST_E_SUBJECT_FORM_UNKNOWN:
    case TRUST_E_PROVIDER_UNKNOWN:
        return SignatureStatus::Unsigned;
    case TRUST_E_BAD_DIGEST:
    case TRUST_E_NO_SIGNER_CERT:
    case TRUST_E_COUNTER_SIGNER:
    case TRUST_E_CERT_SIGNATURE:
    case TRUST_E_TIME_STAMP:
    case TRUST_E_BASIC_CONSTRAINTS:
    case TRUST_E_FINANCIAL_CRITERIA:
    case TRUST_E_SUBJECT_NOT_TRUSTED:
    case TRUST_E_EXPLICIT_DISTRUST:
    case CERT_E_EXPIRED:
    case CERT_E_VALIDITYPERIODNESTING:
    case CERT_E_ROLE:
    case CERT_E_PATHLENCONST:
    case CERT_E_CRITICAL:
    case CERT_E_PURPOSE:
    case CERT_E_ISSUERCHAINING:
    case CERT_E_MALFORMED:
    case CERT_E_UNTRUSTEDROOT:
    case CERT_E_UNTRUSTEDTESTROOT:
    case CERT_E_UNTRUSTEDCA:
    case CERT_E_REVOKED:
    case CERT_E_WRONG_USAGE:
    case CERT_E_INVALID_POLICY:
    case CERT_E_INVALID_NAME:
    case CRYPT_E_SECURITY_SETTINGS:
    case CRYPT_E_BAD_MSG:
    case CRYPT_E_HASH_VALUE:
    case CRYPT_E_ASN1_BADTAG:
    case CRYPT_E_ASN1_CORRUPT:
    case CRYPT_E_ASN1_EOD:
        return SignatureStatus::Untrusted;
    default:
        return SignatureStatus::Unknown;
    }
}

SignatureStatus verifyEmbedded(const SignedFile& file)
{
    WINTRUST_FILE_INFO subject{};
    subject.cbStruct = sizeof subject;
    subject.pcwszFilePath = wide(file.path);
    subject.hFile = file.handle.get();
    WINTRUST_DATA data{};
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &subject;
    return verify(data);
}

SignatureStatus verifyInCatalog(WINTRUST_CATALOG_INFO& catalog)
{
    WINTRUST_DATA data{};
    data.dwUnionChoice = WTD_CHOICE_CATALOG;
    data.pCatalog = &catalog;
    return verify(data);
}

} // namespace korvane::windows_platform
