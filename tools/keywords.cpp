// The keywords command: every classifier keyword with its value syntax and
// an example, from the classifier's own keyword table.
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "commands.h"
#include "nuvclfy.h"
#include "output.h"

namespace tool {

int run_keywords(bool json) {
  std::size_t keyword_width = std::string("KEYWORD").size(), syntax_width = std::string("VALUE").size();
  for (std::size_t row = 0; const nuv_clfy_keyword_help *help = nuv_clfy_keyword_help_at(row); ++row) {
    keyword_width = std::max(keyword_width, std::string(help->keyword).size());
    syntax_width = std::max(syntax_width, std::string(help->syntax).size());
  }
  if (!json) fmt::print("{:<{}}  {:<{}}  {}\n", "KEYWORD", keyword_width, "VALUE", syntax_width, "EXAMPLE");
  for (std::size_t row = 0; const nuv_clfy_keyword_help *help = nuv_clfy_keyword_help_at(row); ++row) {
    if (json)
      print_json_line({{"keyword", help->keyword}, {"value", help->syntax}, {"example", help->example}});
    else
      fmt::print("{:<{}}  {:<{}}  {}\n", help->keyword, keyword_width, help->syntax, syntax_width, help->example);
  }
  return kExitOk;
}

}  // namespace tool
