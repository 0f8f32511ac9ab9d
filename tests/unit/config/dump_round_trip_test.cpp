// What the dump shows loads as the same configuration: checked over random ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

#include "config/early_keys.h"
#include "config/settings_table.h"
#include "config_support.h"
#include "support/seeds.h"

namespace trabex {
namespace {

class RandomFile {
 public:
  explicit RandomFile(unsigned seed) : random_(seed) {}

  std::string Text() {
    std::string text;
    std::string_view section;
    for (const Setting& setting : AllSettings()) {
      if (setting.is_early || Below(4) == 0) continue;
      if (setting.section != section) text += "[" + std::string(section = setting.section) + "]\n";
      AddSetting(text, setting);
    }
    text += "[ResponseChanges]\n";
    for (int count = Below(6); count > 0; --count) {
      AddLines(text, Pick({"550", "RCPT.Private", "MAIL.250", "BadSeq", ".220"}),
               [this] { return Record(); });
    }
    for (const char* name : {"SenderReplacements.Local", "SenderReplacements.Remote",
                             "RecipientReplacements.Local", "RecipientReplacements.Remote"}) {
      text += "[" + std::string(name) + "]\n";
      for (int count = Below(4); count > 0; --count) {
        text += Pattern() + "," + Quoted() + std::to_string(count) + " = " + Word() + "\n";
      }
    }
    return text;
  }

 private:
  int Below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  std::string Pick(std::initializer_list<const char*> texts) {
    return texts.begin()[Below(static_cast<int>(texts.size()))];
  }

  std::string Word() {
    std::string word;
    for (int count = Below(25); count >= 0; --count) word += "abXYZ019.-_@\xC3"[Below(13)];
    return word;
  }
  std::string Pattern() {
    return Pick({"*", "", "?", "x", "[]", "u"}) + Word() + Pick({"", "*", "[a-z]", "[!0-9,]", "#"});
  }
  std::string Quoted() {
    return "\"" + Pick({"", " ", "a b", "x,y", ",", "Z"}) + Pick({"", " ", Word().c_str()}) + "\"";
  }
  // Quotes inside an expression hold commas and blanks together as those around it do.
  std::string HalfQuoted() { return Pattern() + Quoted() + Pick({"", "y", "\"\"", "\"\"z"}); }
  std::string Expression() { return Below(3) == 0 ? Quoted() : Below(4) == 0 ? HalfQuoted() : Pattern(); }
  std::string PlainExpression() {
    std::string text = Pattern();
    while (text.find(',') != std::string::npos) text = Pattern();
    return text;
  }
  std::string Range() {
    const auto byte = [this] { return std::to_string(Below(256)); };
    const std::string network = byte() + "." + byte();
    switch (Below(7)) {
      case 0:
        return network + ".0.0/16";
      case 1:
        return network + ".1.0-" + network + ".1." + byte();
      case 2:
        return network + ".8.0/255.255.252.0";
      case 3:
        return "2001:db8:" + byte() + "::/48";
      case 4:
        return "2001:db8::" + byte() + "-2001:db8::1:0";
      case 5:
        return Pick({"::", "::ffff:", "fd00::"}) + network + "." + byte() + "." + byte();
      default:
        return network + "." + byte() + "." + byte();
    }
  }
  std::string FileName() {
    return Below(3) == 0 ? Quoted() : Pick({"/etc/", "./", "../", "", "a/"}) + Word();
  }
  std::string Record() {
    const auto part = [this] { return "<" + Pick({"", "a, b", "{%crlf%}", "=", " \"x\" "}) + Word() + ">"; };
    switch (Below(3)) {
      case 0:
        return part();
      case 1:
        return part() + Pick({"=", " = ", "= "}) + part();
      default:
        return part() + Pick({"==", " ==", "= = "}) + part();
    }
  }

  template <class Make>
  void AddLines(std::string& text, const std::string& key, Make make) {
    for (int lines = Below(3); lines >= 0; --lines) {
      text += key + "=";
      for (int entries = Below(9); entries > 0; --entries)
        text += make() + (entries > 1 ? Pick({",", " , "}) : "");
      text += "\n";
    }
  }

  void AddSetting(std::string& text, const Setting& setting) {
    const std::string key(setting.key);
    switch (setting.kind) {
      case SettingKind::kAddressList:
        AddLines(text, key, [this] {
          std::string piece = Expression();
          for (int more = Below(5) - 2; more > 0; --more) piece += " " + Expression();
          return piece;
        });
        break;
      case SettingKind::kPlainList:
        AddLines(text, key, [this] {
          std::string piece = PlainExpression();
          for (int more = Below(5) - 2; more > 0; --more) piece += Pick({" ", "  "}) + PlainExpression();
          return piece;
        });
        break;
      case SettingKind::kExtensionList:
        AddLines(text, key, [this] {
          return Below(3) == 0 ? Quoted() : Word() + " " + (Below(4) == 0 ? HalfQuoted() : Word());
        });
        break;
      case SettingKind::kRangeList:
        AddLines(text, key, [this] { return Range(); });
        break;
      case SettingKind::kPartialRangeList:
        AddLines(text, key, [this] { return Range(); });
        break;
      case SettingKind::kIPAddresses:
        text += key + "=192.0.2." + std::to_string(Below(256)) +
                Pick({"", ",::1", " , 2001:DB8::01,,::ffff:192.0.2.7", ",0.0.0.0, ::"}) + "\n";
        break;
      case SettingKind::kCertificateList:
        AddLines(text, key, [this] {
          return FileName() + Pick({"", "", " ", "  "}) + Pick({"", "\"\"", "k", FileName().c_str()});
        });
        break;
      case SettingKind::kChoice:
        text +=
            key + "=" +
            std::string(
                setting.choices[static_cast<std::size_t>(Below(static_cast<int>(setting.choices.size())))]) +
            "\n";
        break;
      case SettingKind::kOutput:
        text += key + "=" + Pick({"", "-", "a b", "/x/y", "./z"}) + "\n";
        break;
      case SettingKind::kEndpoint:
        text += key + "=" + Pick({"", "127.0.0.1:9425", "[::1]:1", "[2001:DB8::01]:65535"}) + "\n";
        break;
      case SettingKind::kNameList:
        AddLines(text, key, [this, &setting] {
          return ToUpper(
              setting.choices[static_cast<std::size_t>(Below(static_cast<int>(setting.choices.size())))]);
        });
        break;
      case SettingKind::kSize:
        text += key + "=" + std::to_string(Below(5000) - 2) + Pick({"", "K", "M", "G", ".5K", ".7"}) + "\n";
        break;
      case SettingKind::kText:
      case SettingKind::kCiphers:
      case SettingKind::kFile:
      case SettingKind::kHostName:
      case SettingKind::kDatabase:
      case SettingKind::kLogFolder:
        text += key + "=" + Pick({"", "a b", "/x/y"}) + Word() + "\n";
        break;
      default:
        text += key + "=" +
                std::to_string(setting.min + Below(static_cast<int>(std::min<std::int64_t>(
                                                 100, setting.max - setting.min + 1)))) +
                "\n";
        break;
    }
  }

  std::mt19937 random_;
};

// The dump, made of so many entries at a time.
std::string DumpInParts(const Configuration& configuration, std::size_t entries) {
  ConfigurationDump dump(configuration, "x.ini");
  std::string text;
  const auto write_line = [&](std::string_view line) { text.append(line).append("\n"); };
  while (dump.WriteSome(entries, write_line)) {
  }
  return text;
}

TEST(Dump, ReadsBackAsTheSameConfiguration) {
  std::size_t longest = 0;
  for (unsigned seed = 0; seed < SeedCount(300); ++seed) {
    const std::string text = RandomFile(seed).Text();
    // What the random file has of duplicates and values out of range is left out.
    const LoadedText loaded(text, true);
    ASSERT_TRUE(loaded.result);
    const std::string dump = Joined(DumpLines(loaded.configuration));
    longest = std::max(longest, dump.size());
    if (seed % 5 == 0) {
      ASSERT_EQ(DumpInParts(loaded.configuration, 1 + seed % 7), dump) << text;
    }

    // Of certificates the lines stay although no entry of them is of use.
    const TLSSettings& tls = loaded.configuration.TLS;
    const bool misspelled = tls.Certificate.empty() && tls.WantsCertificate();
    LoadedText again(dump, misspelled);
    ASSERT_TRUE(again.result) << again.log.Lines()[0] << "\n" << dump << "\n\n" << text;
    EXPECT_EQ(again.log.Lines().empty(), !misspelled);
    EarlyKeyInputs inputs;
    ReadEarlyKeysFromText(dump, inputs, again.configuration, again.log);
    again.configuration.LogPath = loaded.configuration.LogPath;  // empty there
    ASSERT_EQ(Joined(DumpLines(again.configuration)), dump) << text;
    ASSERT_TRUE(again.configuration.TLS == tls) << text;
    ASSERT_EQ(again.configuration.Service.status_endpoint, loaded.configuration.Service.status_endpoint);
    ASSERT_EQ(again.configuration.BindAddresses, loaded.configuration.BindAddresses) << text;
    for (const Setting& setting : AllSettings()) {
      if (setting.kind == SettingKind::kAddressList || setting.kind == SettingKind::kPlainList ||
          setting.kind == SettingKind::kExtensionList) {
        ASSERT_EQ(Entries(FieldOf<ExpressionList>(again.configuration, setting)),
                  Entries(FieldOf<ExpressionList>(loaded.configuration, setting)))
            << setting.key << "\n"
            << text;
      }
      if (setting.kind == SettingKind::kNameList) {
        ASSERT_EQ(FieldOf<std::vector<std::string>>(again.configuration, setting),
                  FieldOf<std::vector<std::string>>(loaded.configuration, setting));
      }
      if (setting.kind == SettingKind::kRangeList || setting.kind == SettingKind::kPartialRangeList) {
        // A range that stands twice is written once.
        const IPRangeList& first = FieldOf<IPRangeList>(loaded.configuration, setting);
        const IPRangeList& second = FieldOf<IPRangeList>(again.configuration, setting);
        for (const IPRange& range : first.Ranges()) {
          ASSERT_TRUE(second.Contains(range.low) && second.Contains(range.high)) << setting.key;
        }
        ASSERT_LE(second.Count(), first.Count()) << setting.key;
      }
    }
  }
  EXPECT_GT(longest, 5000U) << "the files are long enough to break lines";
}

}  // namespace
}  // namespace trabex
