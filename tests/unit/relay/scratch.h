// A folder of a test's own, removed with what is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace relay {

class Scratch {
public:
    Scratch() {
        char name[] = "/tmp/relayXXXXXX";
        folder = ::mkdtemp(name);
    }
    ~Scratch() { std::filesystem::remove_all(folder); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string path(const std::string& name) const { return folder + "/" + name; }

    /// A file with a text; folders on the way are made.
    std::string file(const std::string& name, const std::string& text) const {
        const std::filesystem::path place = path(name);
        std::filesystem::create_directories(place.parent_path());
        std::ofstream(place) << text;
        return place;
    }

private:
    std::string folder;
};

} // namespace relay
