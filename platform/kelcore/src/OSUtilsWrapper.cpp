// The opener's command line: the portable half of OSUtilsWrapper.

#include "kelcore/OSUtilsWrapper.h"

#include <utility>

namespace kelcore {

namespace {

// Shell-like word splitting without expansions: blanks separate words, '...' is literal,
// "..." keeps blanks and honours \" \\ \$ \`, and a backslash elsewhere takes the next
// character literally. false for an unclosed quote.
bool SplitWords(std::string_view command, std::vector<std::string>& words) {
  std::string word;
  bool inWord = false;
  for (std::size_t i = 0; i < command.size(); ++i) {
    const char c = command[i];
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words.push_back(std::exchange(word, {}));
      inWord = false;
      continue;
    }
    inWord = true;
    if (c == '\'') {
      const std::size_t close = command.find('\'', i + 1);
      if (close == std::string_view::npos) return false;
      word.append(command.substr(i + 1, close - i - 1));
      i = close;
    } else if (c == '"') {
      for (++i;; ++i) {
        if (i >= command.size()) return false;
        const char d = command[i];
        if (d == '"') break;
        if (d == '\\' && i + 1 < command.size() && std::string_view("\"\\$`").find(command[i + 1]) != std::string_view::npos) {
          word += command[++i];
        } else {
          word += d;
        }
      }
    } else if (c == '\\') {
      if (i + 1 < command.size()) word += command[++i];
    } else {
      word += c;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return true;
}

}  // namespace

std::vector<std::string> OSUtilsWrapper::CommandLineFor(std::string_view command, std::string_view url) {
  std::vector<std::string> words;
  if (!SplitWords(command, words) || words.empty()) return {};
  bool placed = false;
  for (auto& word : words) {
    for (std::size_t at = word.find("%u"); at != std::string::npos; at = word.find("%u", at + url.size())) {
      word.replace(at, 2, url);
      placed = true;
    }
  }
  if (!placed) words.emplace_back(url);
  return words;
}

}  // namespace kelcore
