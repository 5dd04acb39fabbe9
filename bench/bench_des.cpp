// Blocks per second of the system's DES against OpenSSL's DES_ecb_encrypt, in one run.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <benchmark/benchmark.h>
#include <openssl/des.h>

#include <cstring>

#include "scramble/des.h"
#include "scramble/scramble.h"

namespace {

constexpr unsigned char kKey[8] = {0x13, 0x34, 0x57, 0x79, 0x9B, 0xBC, 0xDF, 0xF1};

void BM_endes(benchmark::State& state) {
  desinit(reinterpret_cast<const char*>(kKey));
  char block[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (auto _ : state) {
    endes(block, block);  // each block depends on the one before
    benchmark::DoNotOptimize(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_endes);

void BM_dedes(benchmark::State& state) {
  desinit(reinterpret_cast<const char*>(kKey));
  char block[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (auto _ : state) {
    dedes(block, block);
    benchmark::DoNotOptimize(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_dedes);

void BM_openssl_ecb_encrypt(benchmark::State& state) {
  DES_cblock key;
  std::memcpy(key, kKey, 8);
  DES_key_schedule ks;
  DES_set_key_unchecked(&key, &ks);
  DES_cblock block = {1, 2, 3, 4, 5, 6, 7, 8};
  for (auto _ : state) {
    DES_ecb_encrypt(&block, &block, &ks, DES_ENCRYPT);
    benchmark::DoNotOptimize(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_openssl_ecb_encrypt);

// Setting a key rebuilds all tables; the codec does it for every call with its own key.
void BM_desinit(benchmark::State& state) {
  for (auto _ : state) {
    desinit(reinterpret_cast<const char*>(kKey));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_desinit);

void BM_DeMaxim2_password(benchmark::State& state) {
  char text[64];
  ZUSTRNG_EnMaxim2(text, "a-password-of-20-chr", kCommandPasswordKey);
  char clear[64];
  for (auto _ : state) {
    ZUSTRNG_DeMaxim2(clear, text, kCommandPasswordKey);
    benchmark::DoNotOptimize(clear);
  }
}
BENCHMARK(BM_DeMaxim2_password);

}  // namespace

BENCHMARK_MAIN();
