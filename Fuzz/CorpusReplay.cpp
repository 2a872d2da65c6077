// Runs every file of the given corpus directories through one fuzz entry
// point, without fuzzing, so inputs that once broke an invariant keep passing.
#include "FuzzTargets.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace
{

bool ListFiles(const std::string &directory, std::vector<std::string> &files)
{
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return false;
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            files.push_back(directory + "/" + entry->d_name);
    }
    closedir(dir);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr,
                     "usage: %s request_parser|url_params|connection_point|websocket_frames|multipart|"
                     "tls_records corpus-dir...\n",
                     argv[0]);
        return 2;
    }
    int (*target)(const uint8_t *, size_t) = nullptr;
    if (std::strcmp(argv[1], "request_parser") == 0)
        target = FuzzRequestParser;
    else if (std::strcmp(argv[1], "url_params") == 0)
        target = FuzzUrlParams;
    else if (std::strcmp(argv[1], "connection_point") == 0)
        target = FuzzConnectionPoint;
#if NVQ_WITH_WEBSOCKET
    else if (std::strcmp(argv[1], "websocket_frames") == 0)
        target = FuzzWebSocketFrames;
#endif
#if NVQ_WITH_UPLOADS
    else if (std::strcmp(argv[1], "multipart") == 0)
        target = FuzzMultipart;
#endif
#ifdef NVQ_WITH_TLS
    else if (std::strcmp(argv[1], "tls_records") == 0)
        target = FuzzTlsRecords;
#endif
    if (target == nullptr) {
        std::fprintf(stderr, "unknown fuzz target %s\n", argv[1]);
        return 2;
    }
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
        if (!ListFiles(argv[i], files)) {
            std::fprintf(stderr, "cannot read corpus directory %s\n", argv[i]);
            return 2;
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "empty corpus\n");
        return 2;
    }
    for (const std::string &file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // Named first, so a failing input is identified before the abort.
        std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
        // An exact-size heap copy lets the sanitizers see any read past the end.
        std::vector<uint8_t> copy(bytes.begin(), bytes.end());
        target(copy.data(), copy.size());
    }
    std::printf("%s: replayed %zu corpus inputs\n", argv[1], files.size());
    return 0;
}
