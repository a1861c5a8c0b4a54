// The exports used on the host's thread around a login: login options, user sessions, and the
// authorization URL, returned or handed to a browser callback; each behind the export guard.
#include "actions/SsoActions.h"
#include "worker/ExportGuard.h"
#include "worker/libqxss.h"

char *SsoGetUserLoginOptions() {
    return ExportGuard::run("SsoGetUserLoginOptions", static_cast<char *>(nullptr),
                            [] { return SsoActions::getUserLoginOptions(); });
}

char *SsoGetUserSession() {
    return ExportGuard::run("SsoGetUserSession", static_cast<char *>(nullptr),
                            [] { return SsoActions::getUserSession(); });
}

char *SsoLoginUrl(char const *data) {
    return ExportGuard::run("SsoLoginUrl", static_cast<char *>(nullptr),
                            [data] { return SsoActions::loginUrl(data); });
}

int SsoLogin(char const *data, void (*callback)(char const *)) {
    return ExportGuard::run("SsoLogin", -1,
                            [data, callback] { return SsoActions::login(data, callback); });
}
