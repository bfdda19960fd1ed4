// The manual page and the completion of the command line have the commands and options that --help
// lists, and no others.
#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

using Texts = std::vector<std::string>;
using Names = std::set<std::string>;

struct Option {
  bool has_value = false;
  std::string text;  ///< what is said of it, without mark-up
};
using Options = std::map<std::string, Option>;  // by name, such as --log

/// Maps each option to what follows it: "VALUE" or nothing.
std::map<std::string, std::string> Values(const Options& options) {
  std::map<std::string, std::string> values;
  for (const auto& [name, option] : options) values[name] = option.has_value ? "VALUE" : "";
  return values;
}

Texts Lines(const std::string& text) {
  std::istringstream stream(text);
  Texts lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Texts Words(const std::string& text) {
  std::istringstream stream(text);
  Texts words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

/// What --help prints of the program and of each command.
struct Help {
  Help() {
    bool is_there = false;
    for (const auto& line : Lines(Shell(CPD_HOST " --help").output)) {
      if (is_there && line.starts_with("  ")) commands.push_back(Words(line).at(0));
      is_there = is_there || line.starts_with("Subcommands:");
    }
    std::string all = "for command in ''";
    for (const auto& command : commands) all += " " + command;
    all += "; do echo \"= $command\"; " + Quoted(CPD_HOST) + " $command --help; done";
    std::string command;
    Texts names;
    for (const auto& line : Lines(Shell(all).output)) {
      static const std::regex head(R"(^  (-[^ ]+)( [A-Z|]+(?![a-z]))?.*)");
      std::smatch match;
      if (line.starts_with("= ")) {
        command = line.substr(2);
        names.clear();
      } else if (std::regex_match(line, match, head)) {
        auto list = match[1].str();
        std::ranges::replace(list, ',', ' ');
        names = Words(list);
        for (const auto& name : names) options[command][name].has_value = match[2].matched;
      }
      for (const auto& name : names) options[command][name].text += line + " ";
    }
  }

  Texts commands;
  std::map<std::string, Options> options;  ///< by command; the program's own have an empty one
};

/// The manual page, as its source says it.
struct ManualPage {
  /// @param all_commands  have the options of each list whose paragraph names no command
  explicit ManualPage(const Texts& all_commands) {
    Names everywhere{all_commands.begin(), all_commands.end()};
    everywhere.insert("");
    std::string section;
    Names named;      // the commands that the paragraph names
    Names concerned;  // by the list
    Texts names;      // of the item's options
    for (const auto& line : Lines(ReadFile(MANUAL_PAGE))) {
      const auto words = Words(line);
      if (words.empty() || line.starts_with(".\\\"")) continue;
      for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] == ".Fl" || words[i] == "Fl") mentioned.insert("-" + words[i + 1]);
      }
      const auto& macro = words[0];
      if (macro == ".Sh") section = line.substr(4);
      if (macro == ".Sh" || macro == ".Ss" || macro == ".Pp" || macro == ".El") {
        named.clear();
        names.clear();
      } else if (macro == ".Cm") {
        named.insert(words.at(1));
      } else if (macro == ".Bl") {
        concerned = named.empty() ? everywhere : named;
      } else if (line.starts_with(".It Cm ") && section == "COMMANDS") {
        commands.push_back(words.at(2));
      } else if (line.starts_with(".It Fl ") && section == "OPTIONS") {
        names.clear();
        for (size_t i = 1; i < words.size(); ++i) {
          if (words[i] == "Fl") names.push_back("-" + words.at(i + 1));
        }
        const bool has_value = std::ranges::count(words, "Ar") != 0;
        for (const auto& command : concerned) {
          for (const auto& name : names) options[command][name].has_value = has_value;
        }
        continue;
      }
      const size_t begin = macro.starts_with('.') ? macro.size() + 1 : 0;
      for (const auto& command : concerned) {
        for (const auto& name : names) options[command][name].text += line.substr(begin) + " ";
      }
    }
  }

  Texts commands;
  std::map<std::string, Options> options;  ///< by command, as in Help
  Names mentioned;                         ///< all options, in any place
};

class HelpPage : public testing::Test {
 protected:
  const Help help;
  const ManualPage page{help.commands};
};

TEST_F(HelpPage, IsRepeatedByTheManualPageCommandForCommand) {
  EXPECT_FALSE(help.commands.empty());
  EXPECT_EQ(page.commands, help.commands);
}

TEST_F(HelpPage, IsRepeatedByTheManualPageOptionForOption) {
  for (const auto& [command, options] : help.options) {
    EXPECT_FALSE(options.empty()) << command;
  }
  for (const auto& [command, options] : page.options) {
    EXPECT_TRUE(help.options.contains(command)) << command;
  }
  for (const auto& [command, options] : help.options) {
    const auto described = page.options.find(command);
    ASSERT_NE(described, page.options.end()) << command;
    EXPECT_EQ(Values(described->second), Values(options)) << command;
  }
}

TEST_F(HelpPage, HasEachOptionThatTheManualPageMentionsAnywhere) {
  Names known;
  for (const auto& [command, options] : help.options) {
    for (const auto& [name, option] : options) known.insert(name);
  }
  EXPECT_EQ(page.mentioned, known);
}

/// The default value of an option, in brackets at the end of the help text; empty if it has none.
std::string DefaultIn(const std::string& help_text) {
  std::smatch match;
  static const std::regex brackets(R"(.*\[(.+)\]\s*)");
  return std::regex_match(help_text, match, brackets) ? match[1].str() : "";
}

TEST_F(HelpPage, HasTheDefaultsOfTheManualPage) {
  const std::string phrase = "The default is ";
  size_t count = 0;
  for (const auto& [command, options] : help.options) {
    for (const auto& [name, option] : options) {
      const auto value = DefaultIn(option.text);
      const auto& text = page.options.at(command).at(name).text;
      if (value.empty()) {
        EXPECT_EQ(text.find(phrase), text.npos) << command << " " << name << ": " << text;
        continue;
      }
      ++count;
      const auto place = text.find(phrase + value);
      ASSERT_NE(place, text.npos) << command << " " << name << ": " << value << "; " << text;
      const char next = text.at(place + phrase.size() + value.size());
      EXPECT_TRUE(next == ' ' || next == '.' || next == ',')
          << command << " " << name << ": " << text;
    }
  }
  EXPECT_GT(count, 0U);
}

TEST(ManualPageSource, IsFormattedWithoutAWarning) {
  if (Shell("command -v groff").status != 0) GTEST_SKIP() << "groff is not installed";
  const auto formatted = Shell("groff -mdoc -ww -z -Tutf8 " + Quoted(MANUAL_PAGE));
  EXPECT_EQ(formatted.status, 0);
  EXPECT_EQ(formatted.output, "");
}

/// What bash is offered at the end of a command line.
struct Offer {
  std::string text;  ///< of the command line, after the program's name
  Names words;       ///< as they would then be on the command line
  Names modes;       ///< of compopt, such as plusdirs
};

/// Does what bash does only while somebody types: splits the line into words, and takes what the
/// completion tells readline. Prints an offer for each line that it reads.
constexpr const char* kAsk = R"(
compopt() { modes+=" $2"; }
while IFS= read -r COMP_LINE; do
  line=$COMP_LINE
  for break in = : @; do
    [[ $COMP_WORDBREAKS != *"$break"* ]] || line=${line//"$break"/ "$break" }
  done
  read -ra COMP_WORDS <<<"$line"
  [[ $COMP_LINE != *' ' ]] || COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_POINT=${#COMP_LINE}
  modes=
  _cpd_host
  kept=${COMP_LINE%"${line##* }"}
  echo "${COMPREPLY[*]/#/"${kept##* }"};$modes"
done
)";

/// With and without the package bash-completion, from which the completion takes its words and
/// hosts if it is there.
class Completion : public testing::TestWithParam<bool> {
 protected:
  static constexpr const char* kPackage = "/usr/share/bash-completion/bash_completion";

  void SetUp() override {
    if (GetParam() && access(kPackage, R_OK) != 0) {
      GTEST_SKIP() << "bash-completion is not installed";
    }
    std::filesystem::create_directory(home / ".ssh");
  }

  /// What is offered after `cpd-host ` and each of the texts.
  std::vector<Offer> Ask(const Texts& texts) const {
    std::string lines;
    for (const auto& text : texts) lines += "cpd-host " + text + "\n";
    WriteFile(home / "lines", lines);
    WriteFile(home / "script", (GetParam() ? "source " + std::string(kPackage) + "\n" : "") +
                                   "source " + Quoted(COMPLETION) + "\n" + kAsk);
    const auto asked = Shell("cd " + Quoted(home.path()) + " && HOME=" + Quoted(home.path()) +
                             " bash --norc script <lines");
    std::vector<Offer> offers;
    for (const auto& line : Lines(asked.output)) {
      const auto middle = line.find(';');
      const auto words = Words(line.substr(0, middle));
      const auto modes = Words(line.substr(std::min(middle, line.size() - 1) + 1));
      offers.push_back({.text = offers.size() < texts.size() ? texts[offers.size()] : "",
                        .words = {words.begin(), words.end()},
                        .modes = {modes.begin(), modes.end()}});
    }
    if (offers.size() != texts.size()) throw std::runtime_error(asked.output);
    return offers;
  }
  Offer Ask(const std::string& text) const { return Ask(Texts{text}).front(); }

  const Help help;
  const TempDir home;
};

TEST_P(Completion, OffersTheCommandsOfHelp) {
  EXPECT_EQ(Ask("").words, Names(help.commands.begin(), help.commands.end()));
  EXPECT_EQ(Ask("mo").words, Names{"mount"});
}

TEST_P(Completion, OffersTheOptionsOfEachCommand) {
  Texts texts;
  for (const auto& [command, options] : help.options) texts.push_back(command + " -");
  const auto offers = Ask(texts);
  size_t i = 0;
  for (const auto& [command, options] : help.options) {
    Names names;
    for (const auto& [name, option] : options) names.insert(name);
    EXPECT_EQ(offers[i++].words, names) << command;
  }
}

TEST_P(Completion, OffersNoOptionInPlaceOfAValue) {
  std::map<std::string, bool> has_value;  // by what precedes the word in question
  for (const auto& [command, options] : help.options) {
    for (const auto& [name, option] : options) {
      has_value[command + " " + name + " -"] = option.has_value;
    }
  }
  Texts texts;
  for (const auto& [text, value] : has_value) texts.push_back(text);
  for (const auto& offer : Ask(texts)) {
    EXPECT_EQ(offer.words.empty(), has_value.at(offer.text)) << offer.text;
  }
}

TEST_P(Completion, OffersLevelsOfTheLogAndFiles) {
  EXPECT_EQ(Ask("ls --log-level d").words, Names{"debug"});
  EXPECT_EQ(Ask("ls --log-level=").words,
            (Names{"--log-level=debug", "--log-level=error", "--log-level=off"}));
  EXPECT_EQ(Ask("ls --log ").modes, Names{"default"});
}

TEST_P(Completion, OffersDirectoriesForDisksAndMountPointsOfThisMachine) {
  const Names places{"mount ",
                     "mount disk ",
                     "mount --via command ",
                     "redirect ",
                     "serve ",
                     "attach ",
                     "ls ",
                     "cat ",
                     "df ",
                     "xattr ",
                     "replay capture ",
                     "redirect --log file "};
  const Names others{"mount server:",   "mount disk place ",     "redirect disk ",
                     "redirect --usb ", "redirect --usb place ", "disks ",
                     "df disk "};
  Texts texts(places.begin(), places.end());
  texts.insert(texts.end(), others.begin(), others.end());
  for (const auto& offer : Ask(texts)) {
    EXPECT_EQ(offer.modes.contains("plusdirs"), places.contains(offer.text)) << offer.text;
  }
}

TEST_P(Completion, OffersTheHostsThatSshKnows) {
  WriteFile(home / ".ssh/config", "Host laptop-of-mine\n  Port 23\nHost *.example\n");
  WriteFile(home / ".ssh/known_hosts",
            "laptop-of-yours,192.0.2.1 ssh-ed25519 AAAA\n|1|a=|b= ssh-ed25519 AAAA\n"
            "[laptop-of-all]:2222 ssh-ed25519 AAAA\n");
  const Texts places{"mount laptop-of-", "mount me@laptop-of-", "redirect disk laptop-of-",
                     "redirect disk me@laptop-of-", "redirect --usb laptop-of-"};
  for (const auto& offer : Ask(places)) {
    const std::string place = Words(offer.text).back();
    EXPECT_EQ(offer.words, (Names{place + "mine:", place + "yours:", place + "all:"}))
        << offer.text;
    EXPECT_TRUE(offer.modes.contains("nospace")) << offer.text;
  }
  const Texts others{"serve laptop-of-", "mount disk laptop-of-", "redirect laptop-of-",
                     "redirect disk --via laptop-of-", "mount laptop-of-mine:"};
  for (const auto& offer : Ask(others)) EXPECT_EQ(offer.words, Names()) << offer.text;
}

INSTANTIATE_TEST_SUITE_P(Bash, Completion, testing::Bool(), [](const auto& instance) {
  return instance.param ? "WithBashCompletion" : "Alone";
});

}  // namespace
}  // namespace system_test
