// How the run ended: tables, worst first.

const sum = (numbers) => numbers.reduce((total, each) => total + each, 0);
/** Bursts of drops at the end of a path: also those of packets that matched none of its SAs. */
const burstsOf = (path, direction) => MODEL.drops.filter((drop) => drop.router === path.router &&
  drop.path === path.name && (!direction || drop.direction === direction));
const dropsOf = (path) => sum(burstsOf(path).map((drop) => drop.count));
const burstText = (bursts) => {
  const counts = {};
  for (const drop of bursts) counts[drop.reason] = (counts[drop.reason] || 0) + drop.count;
  return dropText(counts);
};
const dropText = (drops) => Object.entries(drops).filter(([, count]) => count > 0)
  .map(([reason, count]) => count + " " + reason).join(", ");
const allOf = (member) => REPORT.routers.flatMap((router) =>
  router[member].map((each) => ({router: router.name, ...each})));
const pairOf = (generations) => generations.local + "/" + generations.peer;

/** How bad a row is: 2 bad, 1 worth a look, 0 good. */
const TABLES = [
  {title: "Expectations", open: true, rows: () => REPORT.expectations,
   bad: (row) => (row.held ? 0 : 2), badText: "not held",
   columns: {"": (row) => (row.held ? "held" : "NOT HELD"), "at": (row) => timeText(row.at_seconds),
             "line": (row) => row.line || "", "expected": (row) => row.expected,
             "found instead": (row) => row.found}},
  {title: "Invariants", rows: () => Object.entries(REPORT.invariants.by_name).flatMap(([name, count]) => {
     const violations = REPORT.invariants.violations.filter((each) => each.invariant === name);
     return violations.length > 0 ? violations.map((each) => ({name, count, ...each})) : [{name, count}];
   }),
   bad: (row) => (row.what ? 2 : 0), badText: "violated",
   note: () => REPORT.invariants.evaluated.toLocaleString("en") + " evaluations",
   columns: {"invariant": (row) => row.name, "#evaluated": (row) => row.count,
             "at": (row) => (row.what ? timeText(row.at_seconds) : ""),
             "where": (row) => row.where || "", "what": (row) => row.what || ""}},
  {title: "Peers", open: true, rows: () => allOf("peers"), bad: (row) => (row.status === "down" ? 2 : 0),
   badText: "down",
   columns: {"router": (row) => row.router, "peer": (row) => row.name, "address": (row) => row.address,
             "status": (row) => row.status + (row.status === "down" ? ": " + row.down_reason : ""),
             "#key": (row) => row.generation, "initiator": (row) => (row.initiator ? "peer" : "router")}},
  {title: "Paths", open: true, rows: () => allOf("paths"),
   bad: (row) => (row.wanted && row.state === null || dropsOf(row) > 0 ? 2
     : row.wanted && row.state !== "active" ? 1 : 0),
   badText: "missing or with drops", weight: dropsOf,
   columns: {"router": (row) => row.router, "path": (row) => row.name, "to": (row) => row.peer,
             "state": (row) => (row.state === null ? (row.wanted ? "not there" : "not wanted") : row.state),
             "keys": (row) => pairOf(row.generations),
             "own end": (row) => row.local_address + ":" + row.local_port,
             "other end": (row) => row.remote_address + ":" + row.remote_port,
             "#sent": (row) => row.sent_packets,
             "lost by the network": (row) => dropText(row.network_losses).replaceAll("_", " "),
             "#received": (row) => row.received_packets,
             "dropped sending": (row) => burstText(burstsOf(row, "out")),
             "dropped receiving": (row) => burstText(burstsOf(row, "in"))}},
  {title: "Routers", rows: () => REPORT.routers,
   bad: (row) => (!row.up || !row.connected || row.sas_past_hard_limit ? 2
     : row.dh_rekey_state !== "not-rekeying" || row.hold_timer_running ? 1 : 0),
   badText: "down or without controllers", weight: (row) => sum(Object.values(row.drops)),
   columns: {"router": (row) => row.name, "id": (row) => row.router_id,
             "status": (row) => (row.up ? "up" : "down"),
             "controllers": (row) => (row.connected ? "connected" : "away"),
             "#key": (row) => (row.published_generation === null ? "none" : row.published_generation),
             "DH rekey": (row) => row.dh_rekey_state,
             "dropped in the run": (row) => dropText(row.drops),
             "#SAs past a hard limit": (row) => row.sas_past_hard_limit}},
  {title: "SAs", rows: () => allOf("sas"),
   bad: (row) => (row.installation === "installed" ? (row.type.startsWith("steady") ? 0 : 1) : 2),
   badText: "not installed",
   columns: {"router": (row) => row.router, "path": (row) => row.path, "": (row) => row.direction,
             "SPI": (row) => row.spi, "type": (row) => row.type, "keys": (row) => pairOf(row.generations),
             "algorithms": (row) => row.encryption + " " + row.integrity,
             "installation": (row) => row.installation,
             "age": (row) => (row.age_seconds === null ? "" : spanText(row.age_seconds)),
             "#packets": (row) => row.packets, "#bytes": (row) => row.bytes}},
  {title: "Traffic", rows: () => REPORT.traffic, bad: (row) => (row.lost_packets > 0 ? 2 : 0),
   badText: "with losses", weight: (row) => row.lost_packets,
   columns: {"flow": (row) => row.flow, "path": (row) => row.path, "from": (row) => row.from,
             "#sent": (row) => row.sent_packets, "#received": (row) => row.received_packets,
             "#lost": (row) => row.lost_packets}},
];

function buildTables(place) {
  for (const table of TABLES) {
    const weight = table.weight || (() => 0);
    const rows = table.rows().map((row) => ({row, bad: table.bad(row), weight: weight(row)}))
      .sort((a, b) => b.bad - a.bad || b.weight - a.weight);
    const worst = rows.filter((each) => each.bad === 2).length;
    const box = make("details");
    box.open = worst > 0;
    const summary = make("summary", table.title);
    summary.append(make("small", table.note ? table.note() : rows.length + " in all"));
    if (worst) summary.append(make("small", worst + " " + table.badText, "bad"));
    box.append(summary);
    if (rows.length) box.append(tableOf(table.columns, rows));
    place.append(box);
  }
}

function tableOf(columns, rows) {
  const table = make("table");
  const head = table.createTHead().insertRow();
  for (const name of Object.keys(columns)) {
    const number = name.startsWith("#");
    head.append(make("th", number ? name.slice(1) : name, number ? "number" : ""));
  }
  const body = table.createTBody();
  for (const {row, bad} of rows) {
    const line = body.insertRow();
    line.className = ["", "warn", "bad"][bad];
    for (const [name, value] of Object.entries(columns)) {
      const shown = value(row);
      line.append(make("td", typeof shown === "number" ? shown.toLocaleString("en") : shown,
                       name.startsWith("#") ? "number" : ""));
    }
  }
  const box = make("div", undefined, "table-box");
  box.append(table);
  return box;
}

/** The few numbers that say how it went. */
function buildTiles(place, model) {
  const held = REPORT.expectations.filter((each) => each.held).length;
  const all = REPORT.expectations.length;
  const violations = REPORT.invariants.violations.length;
  const sent = sum(REPORT.traffic.map((each) => each.sent_packets));
  const lost = sum(REPORT.traffic.map((each) => each.lost_packets));
  const drops = sum(model.drops.map((each) => each.count));
  const rekeys = (name, log) => model.events.filter((event) => event.kind === "machine" &&
    fieldsOf(event).name === name && fieldsOf(event).log === log).length;
  const peersDown = allOf("peers").filter((peer) => peer.status === "down").length;
  const mark = (bad) => (bad ? "bad" : "good");
  const tiles = [
    [held + " / " + all, "expectations held", mark(held < all)],
    [violations, "of " + REPORT.invariants.evaluated.toLocaleString("en") +
      " invariant checks violated", mark(violations)],
    [peersDown, "peers down at the end", mark(peersDown)],
    [lost.toLocaleString("en"), "of " + sent.toLocaleString("en") + " packets of flows lost",
     mark(lost)],
    [drops.toLocaleString("en"), "packets dropped by data paths", mark(drops)],
    [rekeys("maybeRekeySa", "path").toLocaleString("en"), "SA rekeys started", ""],
    [rekeys("dhRekeyInitiated", "local").toLocaleString("en"), "DH rekeys started", ""],
  ];
  place.append(...tiles.map(([number, text, className]) => {
    const tile = make("li", undefined, className);
    tile.append(make("b", String(number)), make("span", text));
    return tile;
  }));
}
