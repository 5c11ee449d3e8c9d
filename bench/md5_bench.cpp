// MD5 throughput on 64 KiB buffers: kelvo's MD5Init/Update/Final against OpenSSL's MD5 (the
// EVP interface, which dispatches to OpenSSL's assembly implementation on x86-64).
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstddef>
#include <vector>

#include "mosk/kelvo/md5.h"

namespace {

constexpr size_t kBufferSize = 64 * 1024;

std::vector<unsigned char> MakeBuffer() {
  std::vector<unsigned char> buffer(kBufferSize);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i * 31 + 1);
  return buffer;
}

void BM_KelvoMd5(benchmark::State& state) {
  const std::vector<unsigned char> buffer = MakeBuffer();
  unsigned char digest[16];
  for (auto _ : state) {
    MD5Context context;
    MD5Init(&context);
    MD5Update(&context, buffer.data(), static_cast<unsigned int>(buffer.size()));
    MD5Final(digest, &context);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferSize);
}
BENCHMARK(BM_KelvoMd5);

void BM_OpenSslMd5(benchmark::State& state) {
  const std::vector<unsigned char> buffer = MakeBuffer();
  const EVP_MD* md5 = EVP_md5();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_size = 0;
  for (auto _ : state) {
    EVP_Digest(buffer.data(), buffer.size(), digest, &digest_size, md5, nullptr);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferSize);
}
BENCHMARK(BM_OpenSslMd5);

}  // namespace
