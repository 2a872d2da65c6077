#ifndef TESTS_SUPPORT_NGINX_H
#define TESTS_SUPPORT_NGINX_H

// A real nginx (the Debian package) on a free loopback port, with a
// configuration of the test's own, run in the foreground in a scratch
// directory and stopped with the object.

#include "Support/TestClient.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>

extern char **environ;

namespace NVQTest
{

class CNginx
{
  public:
    ~CNginx()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGQUIT);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (!m_directory.empty() && std::system(("rm -rf '" + m_directory + "'").c_str()) == 0)
            m_directory.clear();
    }

    // `servers` goes into the http block; "{port}" in it is the port nginx
    // gets. True once nginx answers connections.
    bool Start(std::string servers)
    {
        char pattern[] = "/tmp/nvq-nginx-XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            return false;
        m_directory = pattern;
        m_port = freePort();
        for (size_t at; (at = servers.find("{port}")) != std::string::npos;)
            servers.replace(at, 6, std::to_string(m_port));
        // Every path nginx writes to lies in the scratch directory.
        std::ofstream config(m_directory + "/nginx.conf");
        config << "worker_processes 1;\npid " << m_directory << "/nginx.pid;\nerror_log " << m_directory
               << "/error.log;\nevents { worker_connections 256; }\n"
               << "http {\naccess_log off;\n";
        for (const char *temporary : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            config << temporary << "_temp_path " << m_directory << "/" << temporary << ";\n";
        config << servers << "}\n";
        config.close();
        const std::string prefix = m_directory + "/", file = prefix + "nginx.conf",
                          errors = prefix + "error.log";
        const char *argv[] = {"nginx", "-p",           prefix.c_str(), "-c",          file.c_str(),
                              "-e",    errors.c_str(), "-g",           "daemon off;", nullptr};
        if (posix_spawn(&m_pid, "/usr/sbin/nginx", nullptr, nullptr, const_cast<char **>(argv), environ) != 0)
            return false;
        for (int i = 0; i < 500; ++i) {
            if (CTestClient().Connect(m_port))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    int Port() const { return m_port; }

    std::string Log() const
    {
        std::stringstream text;
        text << std::ifstream(m_directory + "/error.log").rdbuf();
        return text.str();
    }

  private:
    static int freePort()
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
        ::getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length);
        ::close(fd);
        return ntohs(address.sin_port);
    }

    pid_t m_pid = -1;
    int m_port = 0;
    std::string m_directory;
};

} // namespace NVQTest

#endif
