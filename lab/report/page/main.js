// Puts the page together.

const FINDINGS_SHOWN = 12;

function setTheme(theme) {
  document.documentElement.dataset.theme = theme;
}

function buildHead() {
  const {name, seed} = REPORT.scenario;
  document.title = name + ": Tessel lab report";
  document.getElementById("name").textContent = name;
  const count = (number, what) => number + " " + what + (number === 1 ? "" : "s");
  const paths = new Set(REPORT.routers.flatMap((router) => router.paths.map((path) => path.name)));
  document.getElementById("meta").textContent = count(REPORT.routers.length, "router") + ", " +
    count(paths.size, "path") + ", " + spanText(END) + " of virtual time, seed " + seed;
  const held = REPORT.held && !REPORT.invariants.violations.length;
  const verdict = document.getElementById("verdict");
  verdict.className = held ? "good" : "bad";
  verdict.textContent = !held ? "Failed"
    : REPORT.expectations.length ? "All expectations held" : "Nothing was expected";
  document.getElementById("description").textContent = DATA.description;
}

/** The thing of the timeline that a finding is about. */
function itemOfFinding(model, finding) {
  const base = {router: finding.router, path: finding.path || "", peer: finding.peer || "",
                from: finding.from_seconds, to: finding.to_seconds === null ? END : finding.to_seconds};
  const router = model.routers.get(finding.router);
  const end = model.ends.get(base.router + "\0" + base.path);
  const same = (item) => Math.abs(item.from - base.from) < 1e-5;
  const found = finding.kind === "peer-down"
    ? router.peers.find((peer) => peer.peer === base.peer && same(peer))
    : finding.kind === "drops"
      ? model.drops.find((drop) => findingOf(drop) === finding)
      : finding.kind === "path-state" && end ? end.states.find(same)
        : finding.kind === "installation" && end
          ? end.sas.find((sa) => sa.fields.spi === finding.spi && sa.why) : undefined;
  return {...base, type: "finding", finding, item: found};
}

function buildFindings(model, timeline, details) {
  const list = document.getElementById("finding-list");
  const findings = REPORT.findings;
  if (!findings.length) {
    list.append(make("li", "Nothing: every peer is ready, every path is active, no packet was " +
      "dropped by a data path, and no rekey got stuck.", "none"));
  }
  findings.forEach((finding, number) => {
    const line = make("li");
    const button = make("button", undefined, finding.kind);
    button.type = "button";
    button.append(make("span", finding.title), make("small", finding.to_seconds === null
      ? "still at the end" : spanText(finding.from_seconds)));
    button.addEventListener("click", () => {
      const item = itemOfFinding(model, finding);
      timeline.chosen = item.item || null;
      timeline.reveal(item.item || item);
      details.show(item);
    });
    line.append(button);
    line.hidden = number >= FINDINGS_SHOWN;
    list.append(line);
  });
  if (findings.length > FINDINGS_SHOWN) {
    const line = make("li");
    const more = make("button", "Show all " + findings.length);
    more.type = "button";
    more.addEventListener("click", () => {
      for (const each of list.children) each.hidden = false;
      line.remove();
    });
    line.append(more);
    list.append(line);
  }
}

function buildTools(timeline) {
  const on = (id, act) => document.getElementById(id).addEventListener("click", act);
  on("zoom-in", () => timeline.zoom(0.6));
  on("zoom-out", () => timeline.zoom(1 / 0.6));
  on("zoom-fit", () => timeline.show(0, END));
  const density = document.getElementById("density");
  const showDensity = () => density.setAttribute("aria-pressed", String(timeline.compact));
  showDensity();
  density.addEventListener("click", () => {
    timeline.compact = !timeline.compact;
    showDensity();
    timeline.layout();
  });
  document.getElementById("filter").addEventListener("input", (event) => {
    timeline.filter = event.target.value.trim().toLowerCase();
    timeline.layout();
  });
  for (const layer of LAYERS) {
    const label = make("label");
    const box = make("input");
    box.type = "checkbox";
    box.checked = layer.on;
    box.addEventListener("change", () => {
      layer.on = box.checked;
      timeline.draw();
    });
    label.append(box, " " + layer.name);
    document.getElementById("layers").append(label);
  }
  const legend = document.getElementById("legend");
  buildLegend(legend);
  on("theme", () => {
    setTheme(isDark() ? "light" : "dark");
    buildLegend(legend);
    timeline.draw();
  });
}

setTheme(window.matchMedia("(prefers-color-scheme: dark)").matches ? "dark" : "light");
buildHead();
const MODEL = buildModel();
buildTiles(document.getElementById("tiles"), MODEL);
let details = null;
const timeline = new Timeline(MODEL, (item) => details.show(item));
details = new Details(MODEL, timeline);
buildFindings(MODEL, timeline, details);
buildTools(timeline);
buildTables(document.getElementById("tables"));
document.documentElement.dataset.ready = "true";
