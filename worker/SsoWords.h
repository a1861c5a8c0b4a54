#pragma once

// The words of the command channel: the seven command names and the words that lead their
// reply lines, written here once. Only the command table (SsoCommands.cpp) spells them; a
// reply line is a word, then "|" and its fields, then a newline.
class SsoWords {
public:
    static constexpr char const *loadConfigs = "SSO_LOAD_CONFIGS";
    static constexpr char const *loadConfigsOk = "SSO_LOAD_CONFIGS_OK";
    static constexpr char const *loadConfigsFailure = "SSO_LOAD_CONFIGS_FAILURE";
    // The third answer of a configuration load: the file was read, a provider's metadata not.
    static constexpr char const *loadMetadataFailure = "SSO_LOAD_METADATA_FAILURE";

    static constexpr char const *getNodeConfig = "SSO_GET_NODE_CONFIG";
    static constexpr char const *getNodeConfigOk = "SSO_GET_NODE_CONFIG_OK";
    static constexpr char const *getNodeConfigFailure = "SSO_GET_NODE_CONFIG_FAILURE";

    static constexpr char const *getConfigCluster = "SSO_GET_CONFIG_CLUSTER";
    static constexpr char const *getConfigClusterOk = "SSO_GET_CONFIG_CLUSTER_OK";
    static constexpr char const *getConfigClusterFailure = "SSO_GET_CONFIG_CLUSTER_FAILURE";

    static constexpr char const *getConfig = "SSO_GET_CONFIG";
    static constexpr char const *getConfigOk = "SSO_GET_CONFIG_OK";
    static constexpr char const *getConfigFailure = "SSO_GET_CONFIG_FAILURE";

    static constexpr char const *verify = "SSO_VERIFY";
    static constexpr char const *verifyOk = "SSO_VERIFY_OK";
    static constexpr char const *verifyFailure = "SSO_VERIFY_FAILURE";

    static constexpr char const *refresh = "SSO_REFRESH";
    static constexpr char const *refreshOk = "SSO_REFRESH_OK";
    static constexpr char const *refreshFailure = "SSO_REFRESH_FAILURE";

    static constexpr char const *nodeVerify = "SSO_NODE_VERIFY";
    static constexpr char const *nodeVerifyOk = "SSO_NODE_VERIFY_OK";
    static constexpr char const *nodeVerifyFailure = "SSO_NODE_VERIFY_FAILURE";

    // Between a reply's word and each of its fields.
    static constexpr char const *separator = "|";
    // The end of every reply line.
    static constexpr char const *lineEnd = "\n";
};
