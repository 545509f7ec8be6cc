#include "plugin_agent/hooks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

// Why somebody other than root, this user or this group could have written it; empty otherwise.
std::string foreign_writer(const struct stat& facts) {
  if (facts.st_uid != 0 && facts.st_uid != geteuid()) return "it belongs to another user";
  if ((facts.st_mode & S_IWOTH) != 0) return "everybody may write to it";
  if ((facts.st_mode & S_IWGRP) != 0 && facts.st_gid != 0 && facts.st_gid != getegid()) {
    return "another group may write to it";
  }
  return {};
}

std::string why_refused(const std::string& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0) return std::generic_category().message(errno);
  if (!S_ISREG(facts.st_mode)) return "it is no regular file";
  if (access(path.c_str(), X_OK) != 0) return "it is not executable";
  return foreign_writer(facts);
}

bool has_control_character(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; });
}

}  // namespace

std::vector<std::string> refusals(const hook_listing& listing) {
  std::vector<std::string> sentences;
  for (const auto& [name, reason] : listing.refused) {
    sentences.push_back(std::string("hook ").append(name).append(" is refused: ").append(reason));
  }
  return sentences;
}

hook_listing list_hooks(const std::string& directory) {
  struct stat facts = {};
  if (stat(directory.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode)) {
    throw std::runtime_error("the hooks directory " + directory + " cannot be read");
  }
  if (const auto reason = foreign_writer(facts); !reason.empty()) {
    throw std::runtime_error("the hooks directory " + directory + " is not used: " + reason);
  }
  hook_listing listing;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename();
    if (name.starts_with('.') || name.ends_with('~')) continue;
    if (entry.is_directory()) continue;
    std::string reason =
        has_control_character(name) ? "its name has control characters" : why_refused(entry.path());
    if (reason.empty()) {
      listing.usable.push_back({name, std::filesystem::absolute(entry.path())});
    } else {
      listing.refused.push_back({name, std::move(reason)});
    }
  }
  if (error) throw std::runtime_error("the hooks directory " + directory + ": " + error.message());
  const auto by_name = [](const auto& a, const auto& b) { return a.name < b.name; };
  std::sort(listing.usable.begin(), listing.usable.end(), by_name);
  std::sort(listing.refused.begin(), listing.refused.end(), by_name);
  return listing;
}

}  // namespace vexo::tools
