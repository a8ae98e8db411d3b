// A simulated device of the test's own: a temporary directory that the sim
// libraries and the built `ovat` both read, with that `ovat` on PATH.
#ifndef METERD_TESTS_UNIT_SIM_ENV_H
#define METERD_TESTS_UNIT_SIM_ENV_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/sim/sim.h"

class SimDevice {
public:
    SimDevice() : old_root_(sim_root), old_path_(getenv("PATH") ? getenv("PATH") : "")
    {
        char tmpl[] = "/tmp/meterd-sim-XXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "/nonexistent";
        sim_root = dir_;
        setenv("METERD_SIM_ROOT", dir_.c_str(), 1);
        // This binary is <build>/tests/unit/unit_tests; `ovat` is <build>/ovat.
        use_path(std::filesystem::canonical("/proc/self/exe").parent_path().parent_path().parent_path());
    }
    ~SimDevice()
    {
        sim_root = old_root_;
        unsetenv("METERD_SIM_ROOT");
        setenv("PATH", old_path_.c_str(), 1);
        std::filesystem::remove_all(dir_);
    }
    const std::string &dir() const { return dir_; }
    void write(const std::string &name, const std::string &text) { std::ofstream(dir_ + "/" + name) << text; }
    // Puts a shell script in front of the built `ovat`, to shape its output.
    void fake_ovat(const std::string &body)
    {
        std::filesystem::create_directory(dir_ + "/bin");
        write("bin/ovat", "#!/bin/sh\n" + body + "\n");
        chmod((dir_ + "/bin/ovat").c_str(), 0755);
        use_path(dir_ + "/bin");
    }

private:
    void use_path(const std::string &dir) { setenv("PATH", (dir + ":" + old_path_).c_str(), 1); }
    std::string dir_, old_root_, old_path_;
};

#endif
