#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);  // see Lives.cpp

namespace {

void play(const std::string& bytes, const std::string& origin) {
  const auto* const data = reinterpret_cast<const std::uint8_t*>(bytes.data());
  EXPECT_NO_THROW(LLVMFuzzerTestOneInput(data, bytes.size())) << origin;
}

TEST(Lives, OfTheCorpusAndOfRandomBytes) {
  for (const auto& file : std::filesystem::directory_iterator(ORV_CORPUS)) {
    std::ifstream stream(file.path(), std::ios::binary);
    play({std::istreambuf_iterator<char>(stream), {}}, file.path());
  }
  std::mt19937 random;
  for (int life = 0; life < 4'000; ++life) {
    std::string bytes(random() % 2'000, ' ');
    for (char& byte : bytes) byte = static_cast<char>(random());
    play(bytes, "random life " + std::to_string(life));
  }
}

}  // namespace
