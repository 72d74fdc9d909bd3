#include "lab/report/ReportPage.h"

#include <cmath>
#include <ostream>
#include <string_view>

#include <nlohmann/json.hpp>

#include "lab/report/EventFile.h"
#include "lab/report/PageParts.h"

namespace tessel::lab {
namespace {

/// Texts by number: most of them occur many times.
class TextTable {
 public:
  /// -1 for the empty text.
  int64_t add(const std::string& text) {
    if (text.empty()) {
      return -1;
    }
    const auto [known, isNew] = numbers_.emplace(text, static_cast<int64_t>(numbers_.size()));
    if (isNew) {
      texts_.push_back(text);
    }
    return known->second;
  }
  const nlohmann::json& texts() const { return texts_; }

 private:
  std::map<std::string, int64_t> numbers_;
  nlohmann::json texts_ = nlohmann::json::array();
};

double roundedSeconds(Duration time) {
  return std::round(time.seconds() * 1e6) / 1e6;
}

/// What page/model.js reads.
nlohmann::json pageData(const Lab& lab, const History& history, const Explain& explain,
                        const Examination& examination) {
  nlohmann::json data;
  data["report"] = jsonDocument(lab, examination);
  for (nlohmann::json& router : data["report"]["routers"]) {
    router.erase("events");  // The timeline has them.
    router.erase("log");
  }
  data["description"] = lab.scenario().description;
  data["routers"] = nlohmann::json::array();
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    data["routers"].push_back(router->name());
  }
  TextTable texts;
  nlohmann::json events = nlohmann::json::array();
  for (size_t i = 0; i < history.events().size(); ++i) {
    const LabEvent& event = history.events()[i];
    if (std::holds_alternative<event::Drop>(event.what)) {
      continue;
    }
    const bool isState = std::holds_alternative<event::PathState>(event.what);
    events.push_back({roundedSeconds(event.at), texts.add(event.router), texts.add(event.path),
                      texts.add(event.peer), texts.add(nameOf(event)), texts.add(textOf(event)),
                      texts.add(eventFields(event)),
                      isState ? texts.add(explain.ofPathState(i)) : -1});
  }
  data["events"] = std::move(events);
  nlohmann::json drops = nlohmann::json::array();
  for (const DropBurst& burst : history.drops()) {
    drops.push_back({roundedSeconds(burst.first), roundedSeconds(burst.last), burst.count,
                     texts.add(burst.router), texts.add(burst.path), texts.add(burst.peer),
                     texts.add(dropReasonName(burst.drop.reason)), burst.drop.sending ? 1 : 0,
                     burst.drop.spi == 0 ? -1 : texts.add(spiText(burst.drop.spi))});
  }
  data["drops"] = std::move(drops);
  data["texts"] = texts.texts();
  return data;
}

/// Writes a template up to and without the mark, and drops both from it.
void writeUpTo(std::ostream& out, std::string_view& page, std::string_view mark) {
  const size_t place = page.find(mark);
  out << page.substr(0, place);
  page.remove_prefix(place + mark.size());
}

}  // namespace

void writeReportPage(std::ostream& out, const Lab& lab, const History& history,
                     const Explain& explain, const Examination& examination) {
  std::string data = pageData(lab, history, explain, examination).dump();
  // A script element ends at the first "</": nothing that a text says may look like that.
  for (size_t at = data.find('<'); at != std::string::npos; at = data.find('<', at)) {
    data.replace(at, 1, "\\u003c");
  }
  std::string_view page = pageHtml();
  writeUpTo(out, page, "{{style}}");
  out << pageStyle();
  writeUpTo(out, page, "{{data}}");
  out << data;
  writeUpTo(out, page, "{{script}}");
  out << pageScript() << page;
}

}  // namespace tessel::lab
