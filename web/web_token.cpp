#include "web_token.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "orv/unique_fd.h"

namespace {

constexpr std::size_t kTokenBytes = 32;

std::runtime_error failure(const std::string& file, const std::string& what) {
    return std::runtime_error("token file " + file + ": " + what);
}

std::string randomToken() {
    unsigned char bytes[kTokenBytes];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        throw std::runtime_error(std::string("no random bytes: ") + std::strerror(errno));
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token.push_back(kHex[b >> 4]);
        token.push_back(kHex[b & 15]);
    }
    return token;
}

// O_EXCL: two programs starting at once cannot both write a token.
bool createToken(const std::string& file, std::string* token) {
    unique_fd_t fd(
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        if (errno == EEXIST) {
            return false;
        }
        throw failure(file, std::strerror(errno));
    }
    *token = randomToken();
    const std::string line = *token + "\n";
    if (::write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
        ::fsync(fd.get()) != 0) {
        const int saved = errno;
        ::unlink(file.c_str());
        throw failure(file, std::strerror(saved));
    }
    return true;
}

std::string readToken(const std::string& file) {
    unique_fd_t fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) {
        throw failure(file, std::strerror(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        throw failure(file, "not a regular file");
    }
    if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw failure(file, "others may read it; make it mode 0600");
    }
    char buffer[512];
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
        throw failure(file, std::strerror(errno));
    }
    std::string token(buffer, static_cast<std::size_t>(n));
    token = token.substr(0, token.find_first_of("\r\n"));
    if (token.size() < 16) {
        throw failure(file, "the token must have at least 16 characters on its first line");
    }
    return token;
}

}  // namespace

std::string web_loadToken(const std::string& file) {
    std::string token;
    if (createToken(file, &token)) {
        return token;
    }
    return readToken(file);
}

bool web_tokenMatches(std::string_view authorization, const std::string& token) {
    constexpr std::string_view kBearer = "Bearer ";
    if (authorization.size() != kBearer.size() + token.size() ||
        authorization.substr(0, kBearer.size()) != kBearer) {
        return false;
    }
    unsigned char difference = 0;
    for (std::size_t i = 0; i < token.size(); ++i) {
        difference |= static_cast<unsigned char>(authorization[kBearer.size() + i] ^ token[i]);
    }
    return difference == 0;
}
