// Base64, hexadecimal and MD5: ours beside OpenSSL's and the obvious stream, memcpy as the limit.
//
// Cases are named "<pattern>/<contestant>/<bytes>", bytes before encoding. All write into memory
// that is ready and warm, except `bin2hex`, where every contestant but memcpy makes a string.
#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <kest/utils/hash.h>

#include "require.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes randomData(size_t size) {
    std::mt19937 random(1);
    Bytes data(size);
    for (unsigned char& byte : data)
        byte = static_cast<unsigned char>(random());
    return data;
}

Bytes base64Of(const Bytes& data) {
    Bytes text(data.size() / 3 * 4 + 8);
    text.resize(static_cast<size_t>(
        EVP_EncodeBlock(text.data(), data.data(), static_cast<int>(data.size()))));
    return text;
}

// Reads `in`, writes `out`, which has room for twice as much.
using Convert = void (*)(const Bytes& in, Bytes& out);

void encodeOurs(const Bytes& in, Bytes& out) {
    auto room = static_cast<unsigned>(out.size());
    kest::utils::b64(in.data(), static_cast<unsigned>(in.size()), out.data(), room);
}

void encodeOpenssl(const Bytes& in, Bytes& out) {
    EVP_EncodeBlock(out.data(), in.data(), static_cast<int>(in.size()));
}

void decodeOurs(const Bytes& in, Bytes& out) {
    auto room = static_cast<unsigned>(out.size());
    kest::utils::unb64(in.data(), static_cast<unsigned>(in.size()), out.data(), room);
}

void decodeOpenssl(const Bytes& in, Bytes& out) {
    EVP_DecodeBlock(out.data(), in.data(), static_cast<int>(in.size()));
}

void copy(const Bytes& in, Bytes& out) {
    memcpy(out.data(), in.data(), in.size());
}

void digestOurs(const Bytes& in, Bytes& out) {
    kest::utils::MD5(reinterpret_cast<const char*>(in.data()), static_cast<unsigned>(in.size()),
                     out.data());
}

void digestOneCall(const Bytes& in, Bytes& out) {
    EVP_Digest(in.data(), in.size(), out.data(), nullptr, EVP_md5(), nullptr);
}

// The fastest way through EVP: algorithm and context are made once.
void digestKept(const Bytes& in, Bytes& out) {
    static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static EVP_MD_CTX* const context = EVP_MD_CTX_new();
    EVP_DigestInit_ex2(context, algorithm, nullptr);
    EVP_DigestUpdate(context, in.data(), in.size());
    EVP_DigestFinal_ex(context, out.data(), nullptr);
}

// Whether the contestants agree is looked at before each case, on the same data.
template <Convert convert, Convert reference>
void run(benchmark::State& state, const Bytes& in) {
    Bytes out(in.size() * 2 + 8), expected(out.size());
    convert(in, out);
    reference(in, expected);
    require(convert == copy || out == expected, "the results differ");
    for (auto _ : state) {
        convert(in, out);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

template <Convert convert>
void encode(benchmark::State& state) {
    run<convert, encodeOpenssl>(state, randomData(static_cast<size_t>(state.range(0))));
}

template <Convert convert>
void decode(benchmark::State& state) {
    // Without padding, which EVP_DecodeBlock gives out as zeros.
    run<convert, decodeOpenssl>(state,
                                base64Of(randomData(static_cast<size_t>(state.range(0)) / 3 * 3)));
}

template <Convert convert>
void digest(benchmark::State& state) {
    run<convert, digestOneCall>(state, randomData(static_cast<size_t>(state.range(0))));
}

std::string hexOurs(const Bytes& in) {
    return kest::utils::bin2hex(in.data(), static_cast<unsigned>(in.size()), "", '0');
}

std::string hexStream(const Bytes& in) {
    std::ostringstream stream;
    stream << std::hex << std::setfill('0');
    for (const unsigned char byte : in)
        stream << std::setw(2) << unsigned{byte};
    return stream.str();
}

// Upper-case digits.
std::string hexOpenssl(const Bytes& in) {
    std::string text(in.size() * 2 + 1, '\0');
    OPENSSL_buf2hexstr_ex(text.data(), text.size(), nullptr, in.data(), in.size(), '\0');
    text.pop_back();
    return text;
}

template <std::string (*hex)(const Bytes&)>
void hexadecimal(benchmark::State& state) {
    const Bytes in = randomData(static_cast<size_t>(state.range(0)));
    require(hex == hexOpenssl || hex(in) == hexStream(in), "the results differ");
    for (auto _ : state)
        benchmark::DoNotOptimize(hex(in));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void sizes(benchmark::internal::Benchmark* cases) {
    cases->Arg(64)->Arg(4096)->Arg(1 << 20);
}

BENCHMARK_TEMPLATE(encode, encodeOurs)->Name("b64/ours")->Apply(sizes);
BENCHMARK_TEMPLATE(encode, encodeOpenssl)->Name("b64/EVP_EncodeBlock")->Apply(sizes);
BENCHMARK_TEMPLATE(encode, copy)->Name("b64/memcpy")->Apply(sizes);
BENCHMARK_TEMPLATE(decode, decodeOurs)->Name("unb64/ours")->Apply(sizes);
BENCHMARK_TEMPLATE(decode, decodeOpenssl)->Name("unb64/EVP_DecodeBlock")->Apply(sizes);
BENCHMARK_TEMPLATE(decode, copy)->Name("unb64/memcpy")->Apply(sizes);
BENCHMARK_TEMPLATE(hexadecimal, hexOurs)->Name("bin2hex/ours")->Apply(sizes);
BENCHMARK_TEMPLATE(hexadecimal, hexStream)->Name("bin2hex/ostringstream")->Apply(sizes);
BENCHMARK_TEMPLATE(hexadecimal, hexOpenssl)->Name("bin2hex/buf2hexstr")->Apply(sizes);
BENCHMARK_TEMPLATE(encode, copy)->Name("bin2hex/memcpy")->Apply(sizes);
BENCHMARK_TEMPLATE(digest, digestOurs)->Name("MD5/ours")->Apply(sizes);
BENCHMARK_TEMPLATE(digest, digestKept)->Name("MD5/EVP_kept")->Apply(sizes);
BENCHMARK_TEMPLATE(digest, digestOneCall)->Name("MD5/EVP_Digest")->Apply(sizes);
BENCHMARK_TEMPLATE(digest, copy)->Name("MD5/memcpy")->Apply(sizes);

}  // namespace
