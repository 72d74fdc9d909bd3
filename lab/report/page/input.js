// The timeline's input: pointer, wheel and keys.

Object.assign(Timeline.prototype, {
  listen() {
    const scroller = this.scroller;
    scroller.addEventListener("scroll", () => this.draw());
    scroller.addEventListener("focus", () => this.draw());
    scroller.addEventListener("blur", () => this.draw());
    scroller.addEventListener("keydown", (event) => this.handleKey(event));
    new ResizeObserver(() => this.resize()).observe(scroller);
    const canvas = this.canvas;
    canvas.addEventListener("wheel", (event) => {
      if (event.ctrlKey || event.metaKey) {
        event.preventDefault();
        this.zoom(Math.exp(event.deltaY * 0.004), this.time(event.offsetX));
      } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
        event.preventDefault();
        this.pan((event.deltaX || event.deltaY) / 800);
      }
    }, {passive: false});
    canvas.addEventListener("dblclick", (event) => this.zoom(0.35, this.time(event.offsetX)));
    canvas.addEventListener("pointerdown", (event) => {
      canvas.setPointerCapture(event.pointerId);
      this.drag = {x: event.offsetX, from: this.from, to: this.to, moved: false};
    });
    canvas.addEventListener("pointermove", (event) => this.handleMove(event));
    canvas.addEventListener("pointerup", (event) => {
      const moved = this.drag && this.drag.moved;
      this.drag = null;
      canvas.classList.remove("dragging");
      const item = moved ? null : this.itemAt(event.offsetX, event.offsetY);
      if (item) this.choose(item);
    });
    canvas.addEventListener("pointerleave", () => (this.tooltip.hidden = true));
  },

  handleMove(event) {
    const drag = this.drag;
    if (drag && (drag.moved || Math.abs(event.offsetX - drag.x) > 3)) {
      drag.moved = true;
      this.canvas.classList.add("dragging");
      const by = (drag.x - event.offsetX) / this.span() * (drag.to - drag.from);
      this.show(drag.from + by, drag.to + by);
      this.tooltip.hidden = true;
      return;
    }
    const item = this.itemAt(event.offsetX, event.offsetY);
    this.tooltip.hidden = !item;
    if (item) {
      this.tooltip.textContent = hoverText(item);
      const right = Math.min(event.offsetX + 14, this.width - this.tooltip.offsetWidth - 6);
      const below = event.offsetY + 18;
      const fits = below + this.tooltip.offsetHeight < this.view;
      this.tooltip.style.left = Math.max(4, right) + "px";
      this.tooltip.style.top = this.scroller.scrollTop +
        (fits ? below : event.offsetY - this.tooltip.offsetHeight - 10) + "px";
    }
  },

  handleKey(event) {
    const act = {
      "ArrowLeft": () => this.pan(-0.15), "ArrowRight": () => this.pan(0.15),
      "+": () => this.zoom(0.6), "=": () => this.zoom(0.6), "-": () => this.zoom(1 / 0.6),
      "0": () => this.show(0, END),
      "ArrowUp": () => this.chooseLane(-1), "ArrowDown": () => this.chooseLane(1),
      "n": () => this.step(1), "p": () => this.step(-1),
      "d": () => document.getElementById("density").click(),
      "Enter": () => this.chosen && this.reveal(this.chosen),
    }[event.key];
    if (act && !event.ctrlKey && !event.metaKey && !event.altKey) {
      event.preventDefault();
      act();
    }
  },

  chooseLane(by) {
    this.lane = Math.min(Math.max(0, this.lane + by), this.lanes.length - 1);
    const lane = this.lanes[this.lane];
    const top = this.scroller.scrollTop;
    if (lane.top - AXIS < top) this.scroller.scrollTop = lane.top - AXIS;
    const hidden = lane.top + lane.height - this.view;
    if (hidden > top) this.scroller.scrollTop = hidden;
    this.draw();
  },

  /** Chooses the next or previous thing of the lane, in the order of time. */
  step(by) {
    const lane = this.lanes[this.lane];
    const items = (lane.kind === "stage" ? this.model.stage
      : lane.kind === "router" ? [...lane.router.keys, ...lane.router.spans, ...lane.router.marks]
      : [...lane.end.states, ...lane.end.sas, ...lane.end.marks, ...lane.end.drops,
         ...lane.router.peers.filter((peer) => peer.peer === lane.end.peer)])
      .filter((item) => {
        const layer = item.type === "mark" && signOf(item).layer;
        return !layer || layerOn(layer);
      })
      .sort((a, b) => a.from - b.from);
    const at = items.indexOf(this.chosen);
    const item = items[at < 0 ? (by > 0 ? 0 : items.length - 1) : at + by];
    if (!item) return;
    if (item.from < this.from || item.from > this.to) {
      const span = this.to - this.from;
      this.show(item.from - span / 3, item.from + span * 2 / 3);
    }
    this.choose(item);
  },
});
