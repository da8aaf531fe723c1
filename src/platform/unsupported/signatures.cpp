// Signature verification without a back end.
#include "core/signature_service.h"
#include "platform/unsupported/unsupported.h"

namespace korvane {

SignatureStatus SignatureService::verifyPlatform(const QString& /*path*/) const
{
    static bool logged = false;
    unsupported::logOnce(logged, "[SignatureService] 当前平台不支持 Authenticode 签名验证");
    return SignatureStatus::Unknown;
}

bool SignatureService::canVerifyPlatform() const
{
    return false;
}

QString SignatureService::signerNamePlatform(const QString& /*path*/) const
{
    return {};
}

} // namespace korvane
