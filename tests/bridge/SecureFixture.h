#ifndef TESTS_BRIDGE_SECUREFIXTURE_H
#define TESTS_BRIDGE_SECUREFIXTURE_H

#include <cstdlib>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "tests/bridge/BridgeFixture.h"

/// A server with TLS, which demands the device's certificate or a password, and gives each device its own
/// topics.
class SecureFixture : public BridgeFixture
{
protected:
    void SetUp() override
    {
        chmod((mFolder / ".").c_str(), 0755);
        run("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=ca "
            "-keyout " +
            at("ca.key") + " -out " + at("ca.crt"));
        makeCertificate("server", "localhost");
        makeCertificate("truck", "truck");
        writeFile(at("acl"), "pattern readwrite fleet/%u/#\nuser observer\ntopic readwrite #\n");
        chmod(at("acl").c_str(), 0644);
    }

    std::string at(const std::string& name) const { return mFolder / name; }

    static void run(const std::string& arguments)
    {
        const std::string command = std::string(OPENSSL) + " " + arguments + " >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    void makeCertificate(const std::string& name, const std::string& subject)
    {
        run("req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + subject + " -keyout " +
            at(name + ".key") + " -out " + at(name + ".csr"));
        run("x509 -req -days 2 -in " + at(name + ".csr") + " -CA " + at("ca.crt") + " -CAkey " +
            at("ca.key") + " -CAcreateserial -out " + at(name + ".crt"));
        chmod(at(name + ".key").c_str(), 0644);
    }

    void startServer(const std::string& more)
    {
        mServer.emplace("cafile " + at("ca.crt") + "\ncertfile " + at("server.crt") + "\nkeyfile " +
                        at("server.key") + "\n" + more);
        mServerPort = mServer->port();
    }

    std::string withCertificate() const
    {
        return "ca = " + at("ca.crt") + "\ncertificate = " + at("truck.crt") + "\nkey = " + at("truck.key") +
               "\n";
    }

    std::optional<MqttServer> mServer;
};

#endif
