// The timeline: lanes on a canvas that shows the visible part of a tall scroller.

const LABELS = 168;  // Width of the lanes' names.
const AXIS = 26;     // Height of the time axis.
const MARGIN = 9;    // On both sides of the run.

class Timeline {
  constructor(model, onChoose) {
    this.model = model;
    this.onChoose = onChoose;
    this.scroller = document.getElementById("scroller");
    this.canvas = document.getElementById("canvas");
    this.tooltip = document.getElementById("tooltip");
    this.from = 0;
    this.to = END;
    this.compact = model.ends.size > 24;
    this.filter = "";
    this.hits = [];
    this.chosen = null;
    this.lane = 0;
    this.listen();
    this.layout();
  }

  /** Which lanes there are, and where. */
  layout() {
    // With few lanes there is room for higher ones.
    this.scale = this.model.ends.size <= 8 ? 1.6 : 1;
    const endHeight = this.compact ? 19 : 24 + Math.round(26 * this.scale);
    const lanes = [{kind: "stage", height: 28}];
    const wanted = (text) => text.toLowerCase().includes(this.filter);
    for (const router of this.model.routers.values()) {
      const ends = router.ends.filter((end) => wanted(router.name) || wanted(end.path) ||
        wanted(end.peer));
      if (!ends.length && !wanted(router.name)) continue;
      lanes.push({kind: "router", router, height: 26});
      for (const end of ends) lanes.push({kind: "end", router, end, height: endHeight});
    }
    let top = AXIS;
    for (const lane of lanes) {
      lane.top = top;
      top += lane.height;
    }
    this.lanes = lanes;
    this.lane = Math.min(this.lane, lanes.length - 1);
    this.height = top + 4;
    document.documentElement.style.setProperty("--stage", this.height + "px");
    this.resize();
  }

  resize() {
    const ratio = window.devicePixelRatio || 1;
    const width = this.scroller.clientWidth;
    const height = this.scroller.clientHeight;
    this.width = width;
    this.view = height;
    this.canvas.width = width * ratio;
    this.canvas.height = height * ratio;
    this.canvas.style.width = width + "px";
    this.canvas.style.height = height + "px";
    document.getElementById("spacer").style.height = Math.max(0, this.height - height) + "px";
    this.context = this.canvas.getContext("2d");
    this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
    this.draw();
  }

  x(time) {
    return LABELS + MARGIN + (time - this.from) / (this.to - this.from) * this.span();
  }
  time(x) {
    return this.from + (x - LABELS - MARGIN) / this.span() * (this.to - this.from);
  }
  /** Width of what is shown, in pixels. */
  span() {
    return this.width - LABELS - 2 * MARGIN;
  }

  /** Shows a stretch of time, as much of it as there is. */
  show(from, to) {
    const span = Math.min(END, Math.max(to - from, 0.002));
    this.from = Math.min(Math.max(0, from), END - span);
    this.to = this.from + span;
    this.draw();
  }
  zoom(factor, around = (this.from + this.to) / 2) {
    this.show(around - (around - this.from) * factor, around + (this.to - around) * factor);
  }
  pan(part) {
    const by = (this.to - this.from) * part;
    this.show(this.from + by, this.to + by);
  }

  /** Brings an item into view, with some time around it. */
  reveal(item) {
    const span = Math.max(item.to - item.from, END / 40);
    this.show(item.from - span * 0.75, Math.min(item.to, END) + span * 0.75);
    let lane = this.lanes.findIndex((each) => item.path
      ? each.kind === "end" && each.end.router === item.router && each.end.path === item.path
      : each.kind === "router" && each.router.name === item.router);
    // A peer without a path: the first path that is to lead to it.
    if (item.type === "peer") {
      const end = this.lanes.findIndex((each) => each.kind === "end" &&
        each.end.router === item.router && each.end.peer === item.peer);
      lane = end >= 0 ? end : lane;
    }
    if (lane >= 0) {
      this.lane = lane;
      const at = this.lanes[lane];
      this.scroller.scrollTop = at.top - AXIS - (this.view - AXIS - at.height) / 2;
    }
    this.draw();
  }

  choose(item) {
    this.chosen = item;
    this.draw();
    this.onChoose(item);
  }

  // --- Drawing

  draw() {
    const context = this.context;
    this.hits = [];
    const shift = this.scroller.scrollTop;
    this.colours = {ink: cssColour("--ink"), soft: cssColour("--soft"), line: cssColour("--line"),
                    group: cssColour("--group"), lane: cssColour("--lane"), card: cssColour("--card"),
                    focus: cssColour("--focus"), accent: cssColour("--accent")};
    context.clearRect(0, 0, this.width, this.view);
    context.font = "12px system-ui, 'Segoe UI', Roboto, 'Noto Sans', 'DejaVu Sans', sans-serif";
    context.textBaseline = "middle";
    const ticks = this.ticks();
    this.lanes.forEach((lane, number) => {
      const y = lane.top - shift;
      if (y + lane.height < AXIS || y > this.view) return;
      this.drawLane(lane, y, number);
    });
    context.strokeStyle = this.colours.line;
    context.lineWidth = 1;
    context.globalAlpha = 0.7;
    for (const tick of ticks) {
      const x = Math.round(this.x(tick)) + 0.5;
      context.beginPath();
      context.moveTo(x, AXIS);
      context.lineTo(x, Math.min(this.view, this.height - shift));
      context.stroke();
    }
    context.globalAlpha = 1;
    this.drawActions();
    this.drawAxis(ticks);
  }

  /** Times of the axis's lines. */
  ticks() {
    const steps = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120,
                   300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400, 172800, 604800];
    const most = Math.max(2, (this.width - LABELS) / 95);
    this.tickStep = steps.find((step) => (this.to - this.from) / step <= most) || 2592000;
    const ticks = [];
    for (let at = Math.ceil(this.from / this.tickStep) * this.tickStep; at <= this.to; at += this.tickStep) {
      ticks.push(at);
    }
    return ticks;
  }

  drawAxis(ticks) {
    const context = this.context;
    context.fillStyle = this.colours.card;
    context.fillRect(0, 0, this.width, AXIS);
    context.fillStyle = this.colours.line;
    context.fillRect(0, AXIS - 1, this.width, 1);
    context.fillStyle = this.colours.soft;
    const decimals = this.tickStep >= 1 ? 0 : Math.ceil(-Math.log10(this.tickStep));
    context.textAlign = "center";
    for (const tick of ticks) {
      const label = END > 600 ? clockText(tick, decimals) : +tick.toFixed(3) + " s";
      const half = context.measureText(label).width / 2;
      context.fillText(label, Math.min(Math.max(this.x(tick), LABELS + half), this.width - half - 2),
                       AXIS / 2);
    }
    context.textAlign = "left";
    context.fillText(spanText(this.to - this.from) + " shown", 8, AXIS / 2);
  }

  drawLane(lane, y, number) {
    const context = this.context;
    const {ink, soft, line, group, lane: back} = this.colours;
    context.fillStyle = lane.kind === "end" ? back : group;
    context.fillRect(0, y, this.width, lane.height);
    context.fillStyle = line;
    context.fillRect(0, y + lane.height - 1, this.width, 1);
    context.save();
    context.beginPath();
    context.rect(LABELS, Math.max(y, AXIS), this.width - LABELS, lane.height);
    context.clip();
    if (lane.kind === "stage") this.drawMarks(this.model.stage, y + 14);
    if (lane.kind === "router") this.drawRouter(lane.router, y, lane.height);
    if (lane.kind === "end") this.drawEnd(lane.router, lane.end, y, lane.height);
    context.restore();

    if (number === this.lane && document.activeElement === this.scroller) {
      context.fillStyle = this.colours.focus;
      context.fillRect(0, y, 3, lane.height);
    }
    if (lane.kind === "end" && !this.compact) {
      this.label(lane.end.path, 18, y + 15, LABELS - 24, ink);
      this.label("to " + lane.end.peer, 18, y + 32, LABELS - 50, soft);
      context.globalAlpha = 0.75;
      this.label("in", LABELS - 22, y + 14 + 6 * this.scale, 30, soft);
      this.label("out", LABELS - 22, y + 14 + 18 * this.scale, 30, soft);
      context.globalAlpha = 1;
    } else if (lane.kind === "end") {
      this.label(lane.end.path, 18, y + 10, 80, ink);
      this.label("to " + lane.end.peer, 102, y + 10, LABELS - 108, soft);
    } else {
      context.font = "600 12.5px system-ui, 'Segoe UI', Roboto, 'Noto Sans', 'DejaVu Sans', sans-serif";
      this.label(lane.kind === "router" ? lane.router.name : "scenario", 8, y + lane.height / 2,
                 LABELS - 14, ink);
      context.font = "12px system-ui, 'Segoe UI', Roboto, 'Noto Sans', 'DejaVu Sans', sans-serif";
    }
  }

  label(text, x, y, width, colour) {
    const context = this.context;
    context.fillStyle = colour;
    let shown = text;
    while (shown.length > 2 && context.measureText(shown).width > width) {
      shown = shown.slice(0, shown.endsWith("…") ? -2 : -1) + "…";
    }
    context.fillText(shown, x, y);
  }

  /** Calls back with the left side and the width of a stretch of time, if it is in view. */
  bar(item, draw) {
    if (item.to < this.from || item.from > this.to) return;
    const left = Math.max(this.x(item.from), LABELS - 2);
    draw(left, Math.max(Math.min(this.x(item.to), this.width) - left, 1));
  }

  drawSpans(router, y, height) {
    for (const span of router.spans) {
      this.bar(span, (x, width) => {
        hatch(this.context, x, y, width, height, span.type === "down" ? "#6b7683" : "#c98a00");
        this.hit(span, x, y, width, height);
      });
    }
  }

  drawRouter(router, y, height) {
    this.drawSpans(router, y, height);
    for (const key of router.keys) {
      this.bar(key, (x, width) => {
        const generation = fieldsOf(key.event).generation;
        this.context.fillStyle = saColour("steady", {local: generation, peer: 0});
        this.context.fillRect(x, y + 3, width, 4);
        this.hit(key, x, y + 1, width, 7);
        this.outline(key, x, y + 2, width, 6);
      });
    }
    this.drawMarks(router.marks, y + 17);
  }

  drawEnd(router, end, y, height) {
    const context = this.context;
    this.drawSpans(router, y, height);
    const band = this.compact ? 7 : 9;
    for (const peer of router.peers) {
      if (peer.peer !== end.peer) continue;
      this.bar(peer, (x, width) => {
        hatch(context, x, y + 3, width, height - 7, "#d62f2f");
        this.hit(peer, x, y + 3, width, height - 7);
        this.outline(peer, x, y + 3, width, height - 7);
        if (!this.compact && width > 150) {
          this.label("peer down: " + peer.reason, x + 8, y + height / 2, width - 16, this.colours.ink);
        }
      });
    }
    for (const state of end.states) {
      this.bar(state, (x, width) => {
        context.fillStyle = stateColour(state.state);
        context.fillRect(x, y + 3, width, band);
        this.hit(state, x, y + 3, width, band);
        this.outline(state, x, y + 3, width, band);
      });
    }
    if (!this.compact && layerOn("sas")) {
      for (const sa of end.sas) this.drawSa(sa, y + 14);
    }
    this.drawMarks(end.marks.concat(end.drops), y + height - (this.compact ? 6 : 7));
  }

  drawSa(sa, top) {
    this.bar(sa, (x, width) => {
      const context = this.context;
      const y = top + ((sa.fields.direction === "in" ? 0 : 12) + sa.row * 6) * this.scale;
      const height = 5 * this.scale;
      sa.types.forEach(([since, type], i) => {
        const until = i + 1 < sa.types.length ? sa.types[i + 1][0] : sa.to;
        this.bar({from: since, to: until}, (left, size) => {
          context.fillStyle = saColour(type, sa.fields.generations);
          context.fillRect(left, y, size, height);
        });
      });
      // Not installed yet, or never: only its outline counts.
      this.bar({from: sa.from, to: Math.min(sa.installed, sa.to)}, (left, size) => {
        if (size > 1.5) {
          context.fillStyle = this.colours.lane;
          context.fillRect(left, y + 1, size, height - 2);
        }
      });
      this.hit(sa, x, y - 0.5, width, height + 1);
      this.outline(sa, x, y, width, height);
    });
  }

  /** Draws marks in a row; those that would touch each other become one with their number. */
  drawMarks(marks, y) {
    const context = this.context;
    const clusters = new Map();
    for (const mark of marks) {
      if (mark.to < this.from || mark.from > this.to) continue;
      const sign = signOf(mark);
      if (sign.layer && !layerOn(sign.layer)) continue;
      const x = this.x(Math.max(mark.from, this.from));
      if (mark.type === "drop") {
        this.bar(mark, (left, width) => {
          context.fillStyle = sign.colour;
          context.fillRect(left - 1, y - 4, width + 2, 8);
          this.outline(mark, left - 1, y - 5, width + 2, 10);
        });
      }
      const place = Math.floor(x / 11);
      const cluster = clusters.get(place) || {type: "cluster", items: [], best: null, x: 0};
      cluster.items.push(mark);
      if (!cluster.best || sign.weight > cluster.best.weight) {
        cluster.best = sign;
        cluster.x = x;
      }
      clusters.set(place, cluster);
    }
    for (const cluster of clusters.values()) {
      const {best, items, x} = cluster;
      drawSign(context, best.sign, best.colour, x, y);
      if (items.length > 1) {
        context.globalAlpha = 0.55;
        context.fillStyle = best.colour;
        context.fillRect(x - 4, y + 5, Math.min(9, 2 + Math.log2(items.length) * 2), 1.5);
        context.globalAlpha = 1;
      }
      const item = items.length === 1 ? items[0] : this.clusterOf(items);
      this.hit(item, x - 5, y - 6, 10, 12);
      if (items.includes(this.chosen) && this.chosen.type !== "drop") {
        this.outline(this.chosen, x - 6, y - 6, 12, 12);
      }
    }
    // A long burst can be clicked along its whole length.
    for (const mark of marks) {
      if (mark.type === "drop" && mark.to > mark.from) {
        this.bar(mark, (left, width) => width > 12 && this.hit(mark, left, y - 4, width, 8));
      }
    }
  }

  clusterOf(items) {
    return {type: "cluster", items, from: items[0].from, to: items[items.length - 1].to,
            router: items[0].router, path: items[0].path, peer: items[0].peer};
  }

  drawActions() {
    const context = this.context;
    context.save();
    context.strokeStyle = this.colours.accent;
    context.globalAlpha = 0.5;
    context.setLineDash([3, 4]);
    for (const mark of this.model.stage) {
      if (mark.kind !== "action" || mark.from < this.from || mark.from > this.to) continue;
      const x = Math.round(this.x(mark.from)) + 0.5;
      context.beginPath();
      context.moveTo(x, AXIS);
      context.lineTo(x, this.view);
      context.stroke();
    }
    context.restore();
  }

  outline(item, x, y, width, height) {
    if (item !== this.chosen) return;
    this.context.strokeStyle = this.colours.ink;
    this.context.lineWidth = 2;
    this.context.strokeRect(x - 1, y - 1, width + 2, height + 2);
  }

  hit(item, x, y, width, height) {
    this.hits.push({item, x, y, width, height});
  }

  /** What is at a place of the canvas: what was drawn last wins, some pixels of reach are granted. */
  itemAt(x, y) {
    if (x < LABELS || y < AXIS) return null;
    for (const reach of [0, 2]) {
      for (let i = this.hits.length - 1; i >= 0; --i) {
        const hit = this.hits[i];
        if (x >= hit.x - reach && x <= hit.x + hit.width + reach && y >= hit.y - reach &&
            y <= hit.y + hit.height + reach) {
          return hit.item;
        }
      }
    }
    return null;
  }
}
