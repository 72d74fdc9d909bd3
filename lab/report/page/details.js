// The details of what was clicked: its fields, the sentence that explains it, what came before it.

function make(name, text, className) {
  const element = document.createElement(name);
  if (text !== undefined) element.textContent = text;
  if (className) element.className = className;
  return element;
}

const NAMES = {
  outage: "controllers away", down: "router down",
  "router-up": "router up", "router-down": "router down", "key-published": "key published",
  "key-withdrawn": "key withdrawn", "key-received": "key received", "key-gone": "key gone",
  "controllers-connected": "controllers connected", "controllers-lost": "controllers lost",
  "peer-ready": "peer ready", "peer-down": "peer down", "peer-gone": "peer gone",
  "first-packet": "first packet", "path-gone": "path gone", "nonce-sent": "nonce sent", "nonce-received": "nonce received",
  "hard-limit": "hard limit passed", "sa-not-installed": "SA not installed", log: "log message",
  action: "timeline action", expectation: "expectation", violation: "invariant violated",
};

function titleOf(item) {
  switch (item.type) {
    case "state":
      return "Path " + item.path + " at " + item.router + ": " + item.state;
    case "sa":
      return "SA " + item.fields.spi + " " + item.fields.direction + " of " + item.router +
        ", path " + item.path;
    case "peer":
      return "Peer " + item.peer + " down at " + item.router + ": " + item.reason;
    case "key":
      return "Key " + fieldsOf(item.event).generation + " of " + item.router;
    case "drop":
      return item.count + (item.count === 1 ? " packet" : " packets") + " dropped at " +
        item.router + ": " + item.reason;
    case "cluster":
      return item.items.length + " things close together";
    case "finding":
      return item.finding.title;
    case "outage":
    case "down":
      return item.router + ": " + NAMES[item.type];
    default: {
      const name = item.kind === "machine" ? "engine: " + fieldsOf(item).name
        : NAMES[item.kind] || item.kind;
      return (item.router ? item.router + ": " : "") + (item.text || name);
    }
  }
}

function hoverText(item) {
  const time = item.to > item.from
    ? timeText(item.from) + " to " + (item.open ? "the end" : timeText(item.to)) + ", " +
      spanText(item.to - item.from)
    : timeText(item.from);
  if (item.type === "cluster") {
    const kinds = new Map();
    for (const each of item.items) {
      const name = each.type === "drop" ? "packets dropped"
        : each.kind === "machine" ? (each.text ? "rekey steps" : "engine events")
        : NAMES[each.kind] || each.kind;
      kinds.set(name, (kinds.get(name) || 0) + (each.count || 1));
    }
    return time + "\n" + [...kinds].map(([name, count]) => count + " × " + name).join("\n");
  }
  return titleOf(item) + "\n" + time;
}

/** Name and value of everything that is known of an item. */
function fieldList(item) {
  const rows = [];
  const put = (name, value) => {
    if (value !== undefined && value !== "" && value !== null) rows.push([name, value]);
  };
  if (item.type === "finding") {
    const finding = item.finding;
    put("from", timeText(finding.from_seconds));
    put("until", finding.to_seconds === null ? "the end" : timeText(finding.to_seconds));
    for (const name of ["router", "path", "peer", "spi", "direction", "reason", "packets"]) {
      put(name, finding[name]);
    }
    return rows;
  }
  if (item.to > item.from) {
    put("from", timeText(item.from));
    put("until", item.open ? "the end" : timeText(item.to));
    put("lasted", spanText(item.to - item.from));
  } else {
    put("at", timeText(item.from));
  }
  put("router", item.router);
  put("path", item.path);
  put("peer", item.peer);
  const spread = (fields) => {
    for (const [name, value] of Object.entries(fields)) {
      const pair = value !== null && typeof value === "object" && "local" in value;
      put(name.replaceAll("_", " "), pair ? "own " + value.local + ", peer " + value.peer
        : typeof value === "object" ? JSON.stringify(value) : String(value));
    }
  };
  if (item.type === "sa") {
    spread({...item.fields, type: item.types[item.types.length - 1][1]});
    put("handed over", timeText(item.from));
    put("installed", item.installed === Infinity ? item.why || "never" : timeText(item.installed));
    item.types.slice(1).forEach(([at, type]) => put("became " + type, timeText(at)));
    put("removed", item.open ? undefined : timeText(item.to));
    put("packets", item.packets);
    put("bytes", item.bytes);
  } else if (item.type === "drop") {
    spread({packets: item.count, reason: item.reason, direction: item.direction, spi: item.spi});
  } else if (item.type === "state") {
    put("state", item.state);
    put("before", fieldsOf(item.event).from);
  } else if (item.event || item.kind) {
    const event = item.event || item;
    put("event", NAMES[event.kind] || event.kind);
    spread(fieldsOf(event));
  }
  return rows;
}

class Details {
  constructor(model, timeline) {
    this.model = model;
    this.timeline = timeline;
    this.place = document.getElementById("details");
    this.hint();
  }

  hint() {
    const text = make("p", undefined, "hint");
    text.innerHTML = "Click anything to see what it is and why it happened.<br><br>" +
      "Drag to pan, <kbd>Ctrl</kbd> and wheel or double-click to zoom. With the timeline in focus: " +
      "<kbd>←</kbd> <kbd>→</kbd> pan, <kbd>+</kbd> <kbd>−</kbd> zoom, <kbd>0</kbd> whole run, " +
      "<kbd>↑</kbd> <kbd>↓</kbd> choose a lane, <kbd>N</kbd> <kbd>P</kbd> next and previous thing in " +
      "it, <kbd>Enter</kbd> zoom to it.";
    this.place.replaceChildren(make("h3", "Details"), text);
  }

  show(item) {
    const finding = item.type === "finding" ? item.finding : findingOf(item);
    const why = finding ? finding.explanation : item.type === "state" ? item.event.why : item.why;
    const parts = [make("h3", titleOf(item))];
    if (why) parts.push(make("p", why, "why"));
    if (item.type !== "finding") {
      const button = make("button", "Zoom to it");
      button.type = "button";
      button.addEventListener("click", () => this.timeline.reveal(item));
      parts.push(button);
    }
    const list = make("dl");
    for (const [name, value] of fieldList(item)) list.append(make("dt", name), make("dd", value));
    parts.push(list);
    if (item.type === "cluster") {
      parts.push(this.eventList(item.items.slice(0, 300)));
      if (item.items.length > 300) parts.push(make("p", "… and more: zoom in.", "hint"));
    } else {
      parts.push(...this.before(item, finding));
    }
    this.place.replaceChildren(...parts);
    this.place.scrollTop = 0;
  }

  /** What happened before it at each of the two routers. */
  before(item, finding) {
    const router = finding ? finding.router : item.router;
    const peer = finding ? finding.peer || "" : item.peer;
    const path = finding ? finding.path || "" : item.path;
    const time = finding ? finding.from_seconds : item.from;
    const parts = [];
    for (const name of [router, peer]) {
      if (!name) continue;
      const events = eventsBefore(this.model, name, path, peer ? [router, peer] : [], time, 5)
        .filter((event) => event !== item);
      if (!events.length) continue;
      parts.push(make("h4", "Before it, at " + name), this.eventList(events));
    }
    return parts;
  }

  eventList(items) {
    const list = make("ol");
    for (const item of items) {
      const line = make("li");
      const button = make("button", item.type === "drop" || !item.text ? titleOf(item) : item.text);
      button.type = "button";
      button.addEventListener("click", () => this.timeline.choose(item));
      line.append(make("time", item.from.toFixed(3)), button);
      list.append(line);
    }
    return list;
  }
}
