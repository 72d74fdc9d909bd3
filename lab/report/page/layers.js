// Colours, signs and the legend: what each kind of thing looks like.

const isDark = () => document.documentElement.dataset.theme === "dark";
const cssColour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

/** Colour of an SA: its hue tells the type, its lightness the key generations. */
function saColour(type, generations) {
  const step = (generations.local + generations.peer) % 3;
  const light = (isDark() ? 42 : 46) + step * 11;
  if (type.startsWith("steady")) return `hsl(212 68% ${light}%)`;
  if (type.startsWith("sa-rekey")) return `hsl(172 60% ${light - 10}%)`;
  if (type.startsWith("dh-rekey")) return `hsl(276 52% ${light + 4}%)`;
  return `hsl(212 9% ${isDark() ? 44 + step * 6 : 66 + step * 6}%)`;
}

function stateColour(state) {
  if (state === "active") return isDark() ? "#2f9e63" : "#35a56c";
  if (state === "established") return isDark() ? "#b9932c" : "#e0b23e";
  if (state === "idle") return isDark() ? "#8f8453" : "#cdbf86";
  if (state === "rebuild") return isDark() ? "#d2622a" : "#e36f2f";
  if (state.startsWith("dh-")) return isDark() ? "#8d63c0" : "#a27ad2";
  if (state.startsWith("sa-")) return isDark() ? "#259a8c" : "#3bb4a4";
  return "#999999";
}

const LAYERS = [
  {id: "sas", name: "SAs", on: true},
  {id: "rekeys", name: "rekeys and keys", on: true},
  {id: "nonces", name: "nonces", on: true},
  {id: "log", name: "log", on: true},
  {id: "engine", name: "engine", on: false},
];
const layerOn = (id) => LAYERS.find((layer) => layer.id === id).on;

/** How a mark looks and which layer it belongs to. A higher weight wins where marks meet. */
function signOf(mark) {
  if (mark.type === "drop") return {sign: "drop", colour: "#d62f2f", weight: 9};
  switch (mark.kind) {
    case "violation":
      return {sign: "flag", colour: "#d62f2f", weight: 10};
    case "expectation":
      return {sign: "flag", colour: fieldsOf(mark).held ? "#35a56c" : "#d62f2f",
              weight: fieldsOf(mark).held ? 2 : 9};
    case "action":
      return {sign: "down", colour: cssColour("--accent"), weight: 6};
    case "sa-not-installed":
      return {sign: "cross", colour: "#d62f2f", weight: 8};
    case "hard-limit":
      return {sign: "up", colour: "#e36f2f", weight: 8};
    case "peer-down":
    case "path-gone":
    case "router-down":
    case "controllers-lost":
      return {sign: "cross", colour: "#d62f2f", weight: 8};
    case "peer-ready":
    case "router-up":
    case "controllers-connected":
      return {sign: "dot", colour: "#35a56c", weight: 3};
    case "first-packet":
      return {sign: "dot", colour: "#35a56c", weight: 3};
    case "nonce-sent":
    case "nonce-received":
      return {sign: "ring", colour: "#259a8c", weight: 3, layer: "nonces"};
    case "log":
      return {sign: "square", colour: fieldsOf(mark).severity <= 4 ? "#e36f2f" : "#7a8794", weight: 5,
              layer: "log"};
    case "machine":
      return machineSign(mark);
    default:
      return {sign: "key", colour: "#8d63c0", weight: 2, layer: "rekeys"};
  }
}

function machineSign(mark) {
  const fields = fieldsOf(mark);
  if (!mark.text) return {sign: "tick", colour: "#8a96a3", weight: 0, layer: "engine"};
  const isSa = fields.log === "path";
  return {sign: "diamond", colour: isSa ? "#259a8c" : "#8d63c0", weight: 4, layer: "rekeys"};
}

function drawSign(context, sign, colour, x, y) {
  const size = 4;
  context.fillStyle = context.strokeStyle = colour;
  context.lineWidth = 1.6;
  context.beginPath();
  const line = (...points) => {
    points.forEach(([dx, dy], i) => context[i ? "lineTo" : "moveTo"](x + dx, y + dy));
  };
  switch (sign) {
    case "dot":
      context.arc(x, y, 3, 0, 7);
      return context.fill();
    case "ring":
      context.arc(x, y, 2.8, 0, 7);
      return context.stroke();
    case "square":
      return context.fillRect(x - 3, y - 3, 6, 6);
    case "tick":
      return context.fillRect(x - 0.5, y - 3, 1.2, 6);
    case "drop":
      return context.fillRect(x - 1.5, y - size, 3, 2 * size);
    case "cross":
      line([-3, -3], [3, 3]);
      line([-3, 3], [3, -3]);
      return context.stroke();
    case "diamond":
      line([0, -size], [size, 0], [0, size], [-size, 0]);
      return context.fill();
    case "up":
      line([0, -size], [size, 3], [-size, 3]);
      return context.fill();
    case "down":
      line([-size, -3], [size, -3], [0, size]);
      return context.fill();
    case "flag":
      line([-2, 5], [-2, -5], [5, -2], [-2, 1]);
      context.stroke();
      return context.fill();
    default:  // "key"
      line([-size, 3], [0, -3], [size, 3]);
      return context.stroke();
  }
}

function buildLegend(place) {
  const pair = {local: 0, peer: 0};
  const next = {local: 1, peer: 0};
  const bar = (colour) => (context) => {
    context.fillStyle = colour();
    context.fillRect(1, 3, 20, 8);
  };
  const sign = (kind, colour) => (context) => drawSign(context, kind, colour, 11, 7);
  const entries = [
    ["active", bar(() => stateColour("active"))],
    ["established", bar(() => stateColour("established"))],
    ["idle", bar(() => stateColour("idle"))],
    ["SA rekey runs", bar(() => stateColour("sa-"))],
    ["DH rekey runs", bar(() => stateColour("dh-"))],
    ["to be rebuilt", bar(() => stateColour("rebuild"))],
    ["peer down", (context) => hatch(context, 1, 3, 20, 8, "#d62f2f")],
    ["steady SA, by generation", (context) => {
      context.fillStyle = saColour("steady", pair);
      context.fillRect(1, 3, 10, 8);
      context.fillStyle = saColour("steady", next);
      context.fillRect(11, 3, 10, 8);
    }],
    ["SA of an SA rekey", bar(() => saColour("sa-rekey", pair))],
    ["SA of a DH rekey", bar(() => saColour("dh-rekey", pair))],
    ["retired SA", bar(() => saColour("retired", pair))],
    ["controllers away", (context) => hatch(context, 1, 1, 20, 12, "#c98a00")],
    ["router down", (context) => hatch(context, 1, 1, 20, 12, "#6b7683")],
    ["packets dropped", sign("drop", "#d62f2f")],
    ["rekey", sign("diamond", "#259a8c")],
    ["key published or received", sign("key", "#8d63c0")],
    ["nonce", sign("ring", "#259a8c")],
    ["log message", sign("square", "#e36f2f")],
    ["timeline action", sign("down", cssColour("--accent"))],
    ["expectation", sign("flag", "#35a56c")],
    ["not installed, down, lost", sign("cross", "#d62f2f")],
  ];
  place.replaceChildren(...entries.map(([name, draw]) => {
    const span = document.createElement("span");
    const canvas = document.createElement("canvas");
    const ratio = window.devicePixelRatio || 1;
    canvas.width = 22 * ratio;
    canvas.height = 14 * ratio;
    const context = canvas.getContext("2d");
    context.scale(ratio, ratio);
    draw(context);
    span.append(canvas, name);
    return span;
  }));
}

function hatch(context, x, y, width, height, colour) {
  context.save();
  context.beginPath();
  context.rect(x, y, width, height);
  context.clip();
  context.globalAlpha = 0.16;
  context.fillStyle = colour;
  context.fillRect(x, y, width, height);
  context.globalAlpha = 0.75;
  context.strokeStyle = colour;
  context.lineWidth = 1;
  context.beginPath();
  for (let at = x - height - ((x - height) % 7); at < x + width; at += 7) {
    context.moveTo(at, y + height);
    context.lineTo(at + height, y);
  }
  context.stroke();
  context.restore();
}
