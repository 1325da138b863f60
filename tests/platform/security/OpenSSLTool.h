#pragma once

// Runs the `openssl` command-line tool on files in a temporary folder, so that
// tests can compare the library's digests, ciphers and Base64 with it.

#include "platform/io/TempFolder.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace krcommon::test {

class OpenSSLTool {
public:
    using Bytes = std::vector<std::uint8_t>;

    static bool available() { return std::system("openssl version >/dev/null 2>&1") == 0; }

    /// Runs `openssl <arguments> -in <input file> -out <output file>` and answers the output,
    /// or nothing when the tool fails. With `inputLast` the input file is the last argument
    /// instead (for commands such as dgst that take no -in).
    std::optional<Bytes> run(const std::string& arguments, const Bytes& input, bool inputLast = false) {
        const std::string in = folder_ / "in.bin";
        const std::string out = folder_ / "out.bin";
        write(in, input);
        std::remove(out.c_str());
        const std::string command = "openssl " + arguments + " -out '" + out + "' " + (inputLast ? "" : "-in ") +
                                    "'" + in + "' 2>/dev/null";
        if (std::system(command.c_str()) != 0) return std::nullopt;
        return read(out);
    }

    /// The tool's digest of `input` as lower-case hex (`openssl dgst -<name> -r`).
    std::optional<std::string> digest(const std::string& name, const Bytes& input) {
        auto out = run("dgst -" + name + " -r", input, true);
        if (!out) return std::nullopt;
        const std::string text(out->begin(), out->end());
        return text.substr(0, text.find(' '));
    }

    static Bytes randomBytes(std::size_t count, std::uint32_t stream) {
        std::mt19937 engine(stream);
        Bytes bytes(count);
        for (auto& b : bytes) b = static_cast<std::uint8_t>(engine());
        return bytes;
    }

    static std::string hex(const Bytes& bytes) {
        static const char digits[] = "0123456789abcdef";
        std::string text;
        for (const auto b : bytes) {
            text += digits[b >> 4];
            text += digits[b & 0xF];
        }
        return text;
    }

    static Bytes fromHex(const std::string& text) {
        Bytes bytes;
        for (std::size_t i = 0; i + 1 < text.size(); i += 2)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        return bytes;
    }

private:
    static void write(const std::string& path, const Bytes& bytes) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    static std::optional<Bytes> read(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        if (!file) return std::nullopt;
        return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    TempFolder folder_;
};

}  // namespace krcommon::test
