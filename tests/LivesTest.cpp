#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);  // see Lives.cpp

namespace {

TEST(Lives, OfTheCorpusAndOfRandomBytes) {
  std::string shortest;  // what the broken promise that is read most easily says
  const auto play = [&](const std::string& bytes, const std::string& origin) {
    try {
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    } catch (const std::exception& broken) {
      const std::string told = broken.what() + ("\nOf " + origin);
      if (shortest.empty() || told.size() < shortest.size()) shortest = told;
    }
  };
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
  if (!shortest.empty()) FAIL() << shortest;
}

}  // namespace
