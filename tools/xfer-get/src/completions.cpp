#include "completions.h"

#include <map>
#include <string_view>
#include <vector>

#include "command_table.h"

namespace xfer_get {
namespace {

using Kind = ArgumentKind;

std::vector<std::string> namesOf(const OptionRow& row) {
  std::vector<std::string> names;
  if (row.letter != 0) names.push_back(std::string("-") + row.letter);
  names.push_back("--" + std::string(row.name));
  if (!row.alias.empty()) names.push_back("--" + std::string(row.alias));
  return names;
}

std::string joined(const std::vector<std::string>& words, std::string_view between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : std::string(between)) + word;
  return text;
}

// In single quotes, for each of the three shells.  The table has no backslashes.
std::string quoted(std::string_view text) {
  std::string word = "'";
  for (const char letter : text) word += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  return word + "'";
}

std::string bashAction(const OptionRow& row) {
  switch (row.kind) {
    case Kind::File:
      return "_xfer_get_names -f";
    case Kind::Folder:
      return "_xfer_get_names -d";
    case Kind::Choice:
      return "_xfer_get_words " + quoted(row.choices);
    case Kind::Beginning:
      return "_xfer_get_words " + quoted(row.choices) + "\n      compopt -o nospace 2>/dev/null";
    case Kind::Free:
      break;
  }
  return ":";
}

// What follows the last of an option's names in zsh's notation.
std::string zshArgument(const OptionRow& row) {
  if (row.argument.empty()) return "";
  const std::string name = ":" + std::string(row.argument) + ":";
  switch (row.kind) {
    case Kind::File:
      return name + "_files";
    case Kind::Folder:
      return name + "_files -/";
    case Kind::Choice:
      return name + "(" + std::string(row.choices) + ")";
    case Kind::Beginning:
      return name + "{compadd -S \"\" -- " + std::string(row.choices) + "}";
    case Kind::Free:
      break;
  }
  return name + " ";
}

std::string zshWords(std::string_view words) {
  std::string text = "[";
  for (const char letter : words) {
    if (letter == '[' || letter == ']') text += '\\';
    text += letter;
  }
  return text + "]";
}

std::string zshRow(const OptionRow& row) {
  const bool takes = !row.argument.empty();
  const std::vector<std::string> names = namesOf(row);
  std::vector<std::string> forms;
  forms.reserve(names.size());
  for (const std::string& name : names) forms.push_back(name + (!takes ? "" : name.starts_with("--") ? "=" : "+"));
  const std::string before = row.repeats ? "'*'" : names.size() > 1 ? quoted("(" + joined(names, " ") + ")") : "";
  const std::string form = forms.size() > 1 ? "{" + joined(forms, ",") + "}" : forms.front();
  return before + form + quoted(zshWords(row.words) + zshArgument(row));
}

std::string fishArgument(const OptionRow& row) {
  if (row.argument.empty()) return "";
  switch (row.kind) {
    case Kind::File:
      return " -r -F";
    case Kind::Folder:
      return " -x -a '(__fish_complete_directories)'";
    case Kind::Choice:
    case Kind::Beginning:
      return " -x -a " + quoted(row.choices);
    case Kind::Free:
      break;
  }
  return " -x";
}

}  // namespace

std::string bashCompletion() {
  std::vector<std::string> names;
  std::map<std::string, std::vector<std::string>> namesByAction;
  for (const OptionRow& row : optionRows()) {
    const std::vector<std::string> own = namesOf(row);
    names.insert(names.end(), own.begin(), own.end());
    if (row.argument.empty()) continue;
    std::vector<std::string>& alike = namesByAction[bashAction(row)];
    alike.insert(alike.end(), own.begin(), own.end());
  }
  std::string cases;
  for (const auto& [action, alike] : namesByAction) {
    cases += "    " + joined(alike, " | ") + ")\n      " + action + "\n      return\n      ;;\n";
  }
  return R"(# Completes xfer-get in bash.
_xfer_get_names() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "$1" -- "$word")
}

_xfer_get_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word")
}

_xfer_get() {
  local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    [[ ${COMP_WORDS[i]} != -- ]] || { _xfer_get_names -f; return; }
  done
  # "--name=value" comes as three words.
  if [[ $word == = ]]; then
    word=
  elif [[ $option == = ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  case $option in
)" + cases +
         R"(  esac
  if [[ $word == -* ]]; then
    _xfer_get_words ')" +
         joined(names, " ") + R"('
  else
    _xfer_get_names -f
  fi
}

complete -F _xfer_get xfer-get
)";
}

std::string zshCompletion() {
  std::string text = "#compdef xfer-get\n# Completes xfer-get in zsh.\n_arguments -s -S";
  for (const OptionRow& row : optionRows()) text += " \\\n  " + zshRow(row);
  return text + " \\\n  '*:URL or FILE:_files'\n";
}

std::string fishCompletion() {
  std::string text = "# Completes xfer-get in fish.\n";
  for (const OptionRow& row : optionRows()) {
    text += "complete -c xfer-get";
    if (row.letter != 0) text += std::string(" -s ") + row.letter;
    text += " -l " + std::string(row.name);
    if (!row.alias.empty()) text += " -l " + std::string(row.alias);
    text += fishArgument(row) + " -d " + quoted(row.words) + "\n";
  }
  return text;
}

}  // namespace xfer_get
