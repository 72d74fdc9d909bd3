// The run as objects: routers, the ends of their paths, and what happened there.

const DATA = JSON.parse(document.getElementById("data").textContent);
const REPORT = DATA.report;
const END = REPORT.end_seconds;

const textAt = (number) => (number < 0 ? "" : DATA.texts[number]);

/** "12.500 s", as in the explanations; long times also as hours. */
function timeText(seconds) {
  const plain = seconds.toFixed(3) + " s";
  return END > 600 ? plain + " (" + clockText(seconds, 3) + ")" : plain;
}

/** "1:02:03", with the given number of decimals. */
function clockText(seconds, decimals) {
  const total = Math.round(seconds * 10 ** decimals) / 10 ** decimals;
  const hours = Math.floor(total / 3600);
  const minutes = Math.floor(total / 60) % 60;
  const rest = (total % 60).toFixed(decimals).padStart(decimals ? 3 + decimals : 2, "0");
  return hours + ":" + String(minutes).padStart(2, "0") + ":" + rest;
}

function spanText(seconds) {
  if (seconds < 120) return +seconds.toFixed(3) + " s";
  return seconds < 7200 ? +(seconds / 60).toFixed(1) + " min" : +(seconds / 3600).toFixed(1) + " h";
}

/**
 * Builds everything that is drawn. An item has a type ("state", "sa", "mark", "drop", "outage",
 * "down", "peer", "key"), `from` and `to` in seconds, and where it happened.
 */
function buildModel() {
  const routers = new Map();
  for (const name of DATA.routers) {
    routers.set(name, {name, ends: [], spans: [], keys: [], marks: [], peers: [], up: null,
                       outage: null});
  }
  const ends = new Map();
  for (const router of REPORT.routers) {
    const at = routers.get(router.name);
    at.summary = router;
    for (const path of router.paths) {
      const end = {router: router.name, path: path.name, peer: path.peer, summary: path, states: [],
                   sas: [], marks: [], drops: [], open: null, live: new Map()};
      at.ends.push(end);
      ends.set(router.name + "\0" + path.name, end);
    }
  }
  const model = {routers, ends, events: [], stage: [], drops: [], byPlace: new Map()};

  const close = (item, at) => {
    if (item) {
      item.to = at;
      item.open = false;
    }
    return null;
  };
  const endRouter = (router, at) => {
    router.outage = close(router.outage, at);
    router.key = close(router.key, at);
    for (const peer of router.peers) if (peer.open) close(peer, at);
    for (const end of router.ends) {
      end.open = close(end.open, at);
      for (const sa of end.live.values()) close(sa, at);
      end.live.clear();
    }
  };

  for (const [at, r, p, o, k, t, f, w] of DATA.events) {
    const event = {type: "mark", from: at, to: at, router: textAt(r), path: textAt(p), peer: textAt(o),
                   kind: textAt(k), text: textAt(t), fieldText: f, why: textAt(w),
                   number: model.events.length};
    model.events.push(event);
    const place = event.router + "\0" + event.path;
    if (!model.byPlace.has(place)) model.byPlace.set(place, []);
    model.byPlace.get(place).push(event);
    const router = routers.get(event.router);
    const end = ends.get(place);
    const span = (type, more) => ({type, from: at, to: END, open: true, router: event.router,
                                   path: event.path, peer: event.peer, event, ...more});
    switch (event.kind) {
      case "router-up":
        router.down = close(router.down, at);
        break;
      case "router-down":
        endRouter(router, at);
        router.spans.push((router.down = span("down")));
        break;
      case "controllers-lost":
        router.spans.push((router.outage = span("outage")));
        break;
      case "controllers-connected":
        router.outage = close(router.outage, at);
        break;
      case "key-published":
      case "key-withdrawn":
        router.key = close(router.key, at);
        if (event.kind === "key-published") router.keys.push((router.key = span("key")));
        break;
      case "peer-down":
      case "peer-ready":
      case "peer-gone":
        for (const peer of router.peers) if (peer.open && peer.peer === event.peer) close(peer, at);
        if (event.kind === "peer-down") {
          router.peers.push(span("peer", {reason: fieldsOf(event).reason}));
        }
        break;
      case "path-state":
        if (end) {
          close(end.open, at);
          end.open = span("state", {state: fieldsOf(event).to});
          end.states.push(end.open);
        }
        continue;
      case "path-gone":
        if (end) {
          end.open = close(end.open, at);
          end.marks.push(event);
        }
        continue;
      default:
        if (event.kind.startsWith("sa-") && end) {
          addSaStep(end, event, span);
          continue;
        }
        (end ? end.marks : router ? router.marks : model.stage).push(event);
        continue;
    }
    if (router) router.marks.push(event);
  }
  for (const violation of REPORT.invariants.violations) {
    model.stage.push({type: "mark", kind: "violation", from: violation.at_seconds,
                      to: violation.at_seconds, router: "", path: "", peer: "", why: "",
                      text: "invariant violated: " + violation.invariant + ", " + violation.where +
                            ": " + violation.what, fields: violation});
  }
  for (const [from, to, count, r, p, o, reason, sending, spi] of DATA.drops) {
    const drop = {type: "drop", from, to, count, router: textAt(r), path: textAt(p), peer: textAt(o),
                  reason: textAt(reason), direction: sending ? "out" : "in", spi: textAt(spi)};
    model.drops.push(drop);
    const end = ends.get(drop.router + "\0" + drop.path);
    (end ? end.drops : routers.get(drop.router).marks).push(drop);
  }
  for (const router of routers.values()) {
    for (const end of router.ends) {
      stackSas(end);
      for (const sa of end.live.values()) addFinalCounts(sa, router.summary.sas);
    }
  }
  return model;
}

/** The members of an event that depend on its kind. */
function fieldsOf(event) {
  if (!event.fields) event.fields = JSON.parse(textAt(event.fieldText) || "{}");
  return event.fields;
}

function addSaStep(end, event, span) {
  const fields = fieldsOf(event);
  const sa = end.live.get(fields.hand_over);
  if (event.kind === "sa-handed-over") {
    const made = span("sa", {fields, types: [[event.from, fields.type]], installed: Infinity});
    end.live.set(fields.hand_over, made);
    end.sas.push(made);
    return;
  }
  if (!sa) return;
  if (event.kind === "sa-installed") {
    sa.installed = event.from;
  } else if (event.kind === "sa-not-installed") {
    sa.why = fields.installation + ": " + fields.why;
    end.marks.push(event);
  } else if (event.kind === "sa-retyped") {
    sa.types.push([event.from, fields.type]);
  } else if (event.kind === "sa-removed") {
    sa.to = event.from;
    sa.open = false;
    sa.packets = fields.packets;
    sa.bytes = fields.bytes;
    end.live.delete(fields.hand_over);
  }
}

/** What an SA that lives to the end has carried. */
function addFinalCounts(sa, table) {
  const row = table.find((each) => each.path === sa.path && each.spi === sa.fields.spi &&
    each.direction === sa.fields.direction);
  if (row) {
    sa.packets = row.packets;
    sa.bytes = row.bytes;
  }
}

/** Gives SAs that live at the same time rows of their own, two for each direction. */
function stackSas(end) {
  const free = {in: [0, 0], out: [0, 0]};
  for (const sa of end.sas) {
    const rows = free[sa.fields.direction];
    sa.row = rows[0] <= sa.from ? 0 : rows[1] <= sa.from || rows[1] <= rows[0] ? 1 : 0;
    rows[sa.row] = Math.max(rows[sa.row], sa.to);
  }
}

/** What was found about an item by looking back at the run, or undefined. */
function findingOf(item) {
  const at = (finding) => finding.router === item.router && (finding.path || "") === item.path;
  if (item.type === "drop") {
    return REPORT.findings.find((finding) => finding.kind === "drops" && at(finding) &&
      finding.reason === item.reason && finding.direction === item.direction &&
      (finding.spi || "") === item.spi && finding.from_seconds <= item.from + 1e-5 &&
      finding.to_seconds >= item.to - 1e-5);
  }
  const event = item.event || item;
  if (event.kind === "sa-not-installed" || item.why && item.type === "sa") {
    const spi = (item.fields || fieldsOf(event)).spi;
    return REPORT.findings.find((finding) => finding.kind === "installation" && at(finding) &&
      finding.spi === spi && finding.from_seconds >= item.from - 1e-6);
  }
  if (item.type === "peer" || event.kind === "peer-down") {
    return REPORT.findings.find((finding) => finding.kind === "peer-down" &&
      finding.router === item.router && finding.peer === item.peer &&
      Math.abs(finding.from_seconds - item.from) < 1e-5);
  }
  return undefined;
}

/** The last things that happened at a router before a time: on a path, or of the router itself. */
function eventsBefore(model, router, path, peers, time, most) {
  const found = [];
  for (const place of path ? [router + "\0" + path, router + "\0"] : [router + "\0"]) {
    const events = model.byPlace.get(place) || [];
    let taken = 0;
    for (let i = events.length - 1; i >= 0 && taken < most; --i) {
      const event = events[i];
      if (event.from > time || !event.text || (event.peer && peers.length &&
          !peers.includes(event.peer))) {
        continue;
      }
      found.push(event);
      ++taken;
    }
  }
  return found.sort((a, b) => a.number - b.number);
}
