#pragma once
// A CA and a server certificate for "localhost", made with the openssl command line in a
// temporary folder that goes with the object, for tests of TLS against real peers.

#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <string>

namespace orvale::test {

class TestCertificates {
  public:
    TestCertificates() {
        char pattern[] = "/tmp/orvale-tls-XXXXXX";
        if (!::mkdtemp(pattern))
            throw std::runtime_error("mkdtemp failed");
        dir = pattern;
        std::ofstream(dir + "/server.ext")
            << "subjectAltName=DNS:localhost\nbasicConstraints=CA:FALSE\n"
               "extendedKeyUsage=serverAuth\n";
        const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        run("openssl req -x509" + ec +
            " -keyout ca.key -out ca.pem -days 2 -subj '/CN=orvale test CA'");
        run("openssl req" + ec + " -keyout server.key -out server.csr -subj '/CN=localhost'");
        run("openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
            " -out server.pem -days 2 -extfile server.ext");
    }
    ~TestCertificates() { run("rm -rf '" + dir + "'", false); }
    void run(const std::string& command, bool mustSucceed = true) const {
        if (std::system(("cd '" + dir + "' && " + command + " >/dev/null 2>&1").c_str()) != 0 &&
            mustSucceed)
            throw std::runtime_error("failed: " + command);
    }
    std::string dir;
};

}  // namespace orvale::test
