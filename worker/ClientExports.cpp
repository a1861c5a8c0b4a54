#include "actions/SsoActions.h"
#include "worker/libqxss.h"

char *SsoGetUserLoginOptions() {
    return SsoActions::getUserLoginOptions();
}

char *SsoGetUserSession() {
    return SsoActions::getUserSession();
}

char *SsoLoginUrl(char const *data) {
    return SsoActions::loginUrl(data);
}

int SsoLogin(char const *data, void (*callback)(char const *)) {
    return SsoActions::login(data, callback);
}
