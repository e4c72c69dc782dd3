#include "Trace.h"

#include <zlib.h>

#include <array>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "SegmentLog.h"

namespace {

struct Close {
    void operator()(gzFile file) const { gzclose(file); }
};
using GzipFile = std::unique_ptr<gzFile_s, Close>;

Operation operationOf(const char* line, SegmentLog& log) {
    std::istringstream fields(line);
    long long microseconds = 0;
    char kind = 0;
    Range range{0, 0, nowhere};
    fields >> microseconds >> kind >> range.offset >> range.len >> std::ws;
    if (fields.fail() || !fields.eof() || range.offset < 0 || range.len <= 0) {
        throw std::runtime_error("not a request");
    }
    switch (kind) {
        case 'R':
            return {Operation::Kind::walk, range};
        case 'W':
            range.location = log.append(range.len);
            return {Operation::Kind::insert, range};
        case 'D':
            return {Operation::Kind::insert, range};
        default:
            throw std::runtime_error("kind of request is not R, W or D");
    }
}

}  // namespace

Operations readTrace(const std::string& path) {
    const GzipFile file(gzopen(path.c_str(), "rb"));
    if (!file) throw std::runtime_error(path + ": cannot be opened");
    Operations operations;
    SegmentLog log;
    std::array<char, 256> line{};
    for (int number = 1; gzgets(file.get(), line.data(), line.size()) != nullptr; ++number) {
        if (line[0] == '#') continue;
        try {
            operations.push_back(operationOf(line.data(), log));
        } catch (const std::runtime_error& e) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": " + e.what());
        }
    }
    // A file that ends too soon ends the loop as well.
    int status = Z_OK;
    const char* const message = gzerror(file.get(), &status);
    if (status != Z_OK) throw std::runtime_error(path + ": " + message);
    if (operations.empty()) throw std::runtime_error(path + ": no requests");
    return operations;
}
