// The gateway's live page: the newest stored items first, then what arrives, pushed by the
// gateway over server-sent events (GET /live); counts from GET /stats.
"use strict";

(function () {
  const MAX_ROWS = 1000;       // rows kept on the page; the store keeps everything
  const RECENT = 200;          // stored items shown on load
  const STATS_EVERY_MS = 2000;
  const RETRY_MS = 5000;

  const $ = (id) => document.getElementById(id);
  const rowsBody = $("rows");
  const filters = {
    road: $("filter-road"), name: $("filter-name"), user: $("filter-user"),
    text: $("filter-text"), broken: $("filter-violations"),
  };

  let source = null;
  let ready = false;           // the stored items are shown; stream items go straight in
  let buffered = [];           // stream items that came before the stored ones were shown
  let paused = false;
  let pending = [];            // what arrived while paused
  let statsTimer = null;

  // An item's identity across the stored listing and the stream.
  const keyOf = (a) => a.road + "|" + a.received_at + "|" + a.name + "|" + JSON.stringify(a.item);

  function setConnection(state, text) {
    const el = $("connection");
    el.dataset.state = state;
    el.textContent = text;
  }

  function notice(text) {
    const el = $("notice");
    el.textContent = text;
    el.hidden = !text;
  }

  function timeOf(receivedAt) {
    const t = receivedAt.indexOf("T");
    return t < 0 ? receivedAt : receivedAt.slice(t + 1).replace("Z", "");
  }

  function cell(row, cls, text) {
    const td = document.createElement("td");
    td.className = cls;
    td.textContent = text;
    td.title = text;
    row.appendChild(td);
    return td;
  }

  function makeRow(a) {
    const tr = document.createElement("tr");
    tr.className = "item" + (a.violations.length ? " broken" : "");
    tr.dataset.road = a.road;
    tr.dataset.rules = a.violations.map((v) => v.rule).join(" ");
    tr.tabIndex = 0;
    cell(tr, "time", timeOf(a.received_at)).title = a.received_at;
    const road = cell(tr, "road-cell", "");
    const badge = document.createElement("span");
    badge.className = "road road-" + a.road;
    badge.textContent = a.road;
    road.appendChild(badge);
    cell(tr, "name", a.name);
    cell(tr, "user", a.user);
    cell(tr, "client", a.client_id);
    const rules = cell(tr, "rules", "");
    rules.title = a.violations.map((v) => v.rule + (v.key ? " (" + v.key + ")" : "") + ": " + v.detail).join("\n");
    if (a.violations.length === 0) {
      const ok = document.createElement("span");
      ok.className = "ok";
      ok.textContent = "—";
      rules.appendChild(ok);
    }
    for (const v of a.violations) {
      const span = document.createElement("span");
      span.className = "rule";
      span.textContent = v.rule;
      rules.appendChild(span);
    }
    tr.arrival = a;
    tr.searchText = [a.name, a.user, a.client_id, JSON.stringify(a.item), rules.title].join("\n").toLowerCase();
    tr.addEventListener("click", () => toggleDetail(tr));
    tr.addEventListener("keydown", (e) => { if (e.key === "Enter") toggleDetail(tr); });
    return tr;
  }

  function toggleDetail(tr) {
    if (tr.detail) {
      tr.detail.remove();
      tr.detail = null;
      return;
    }
    const a = tr.arrival;
    const detail = document.createElement("tr");
    detail.className = "detail";
    const td = document.createElement("td");
    td.colSpan = 6;
    if (a.violations.length) {
      const list = document.createElement("ul");
      for (const v of a.violations) {
        const li = document.createElement("li");
        li.textContent = v.rule + (v.key ? " — " + v.key : "") + ": " + v.detail;
        list.appendChild(li);
      }
      td.appendChild(list);
    }
    const pre = document.createElement("pre");
    pre.textContent = JSON.stringify(a.item, null, 2);
    td.appendChild(pre);
    detail.appendChild(td);
    detail.hidden = tr.hidden;
    tr.after(detail);
    tr.detail = detail;
  }

  function matches(tr) {
    const a = tr.arrival;
    const has = (value, input) => !input.value || value.toLowerCase().includes(input.value.trim().toLowerCase());
    return (!filters.road.value || a.road === filters.road.value) &&
      has(a.name, filters.name) && has(a.user, filters.user) &&
      (!filters.text.value || tr.searchText.includes(filters.text.value.trim().toLowerCase())) &&
      (!filters.broken.checked || a.violations.length > 0);
  }

  function show(tr) {
    tr.hidden = !matches(tr);
    if (tr.detail) tr.detail.hidden = tr.hidden;
  }

  function updateShown() {
    const all = rowsBody.querySelectorAll("tr.item");
    let visible = 0;
    for (const tr of all) if (!tr.hidden) ++visible;
    $("shown").textContent = all.length === visible ? all.length + " rows" : visible + " of " + all.length + " rows shown";
    $("empty").hidden = all.length > 0;
  }

  function applyFilters() {
    for (const tr of rowsBody.querySelectorAll("tr.item")) show(tr);
    updateShown();
  }

  // Newest on top; `fresh` marks rows that arrived live.
  function addOnTop(a, fresh) {
    const tr = makeRow(a);
    if (fresh) tr.classList.add("fresh");
    show(tr);
    rowsBody.prepend(tr);
    const items = rowsBody.querySelectorAll("tr.item");
    for (let i = items.length - 1; i >= MAX_ROWS; --i) {
      if (items[i].detail) items[i].detail.remove();
      items[i].remove();
    }
  }

  function arrived(a) {
    if (!ready) { buffered.push(a); return; }
    if (paused) {
      pending.push(a);
      $("paused-count").textContent = pending.length + " new while paused";
      return;
    }
    addOnTop(a, true);
    updateShown();
    statsSoon();
  }

  function clearRows() {
    rowsBody.replaceChildren();
    pending = [];
    buffered = [];
    updateShown();
  }

  // Shows the stored items, then the stream's items that came meanwhile and are not among them.
  async function loadRecent() {
    ready = false;
    try {
      const response = await fetch("/live/recent?limit=" + RECENT, { cache: "no-store" });
      if (!response.ok) throw new Error("GET /live/recent answered " + response.status);
      const recent = await response.json();
      const stored = new Map();
      for (const a of recent) stored.set(keyOf(a), (stored.get(keyOf(a)) || 0) + 1);
      rowsBody.replaceChildren();
      for (let i = recent.length - 1; i >= 0; --i) addOnTop(recent[i], false);
      const early = buffered;
      buffered = [];
      ready = true;
      for (const a of early) {
        const k = keyOf(a);
        if (stored.get(k)) stored.set(k, stored.get(k) - 1);
        else arrived(a);
      }
      updateShown();
    } catch (error) {
      ready = true;
      notice("Could not load the stored items: " + error.message);
    }
  }

  function connect() {
    if (source) source.close();
    ready = false;
    buffered = [];
    setConnection("connecting", "connecting…");
    source = new EventSource("/live");
    source.onopen = () => {
      setConnection("live", "live");
      loadRecent();
      refreshStats();
    };
    source.addEventListener("arrival", (e) => arrived(JSON.parse(e.data)));
    source.addEventListener("dropped", (e) => {
      const d = JSON.parse(e.data);
      notice("This page fell behind: the gateway dropped " + d.dropped + " items from its live stream (" +
             d.total + " in all). They are stored; reload the page to list them.");
    });
    source.onerror = () => {
      if (source.readyState === EventSource.CLOSED) {
        // Refused (503: too many pages streaming) or the gateway is gone; try again later.
        setConnection("refused", "no live stream — retrying");
        source.close();
        setTimeout(connect, RETRY_MS);
      } else {
        setConnection("lost", "connection lost — reconnecting");
      }
    };
  }

  function setCount(id, value) {
    const el = $(id);
    el.textContent = String(value || 0);
  }

  function showStats(s) {
    setCount("count-event", s.events);
    setCount("count-message", s.messages);
    setCount("count-tracking", s.tracking_requests);
    setCount("count-duplicates", s.duplicate_messages);
    setCount("count-rejected", s.rejected);
    setCount("count-injected", s.failures_injected);
    const refused = s.refused_by_reason || {};
    setCount("count-deadline", refused.request_deadline);
    setCount("count-memory", refused.memory_budget);
    const list = $("count-violations");
    list.replaceChildren();
    const rules = Object.entries(s.violations || {});
    if (rules.length === 0) {
      const none = document.createElement("div");
      none.className = "none";
      none.textContent = "none";
      list.appendChild(none);
    }
    for (const [rule, count] of rules) {
      const div = document.createElement("div");
      const dt = document.createElement("dt");
      dt.textContent = rule;
      const dd = document.createElement("dd");
      dd.className = "bad";
      dd.id = "violations-" + rule;
      dd.textContent = String(count);
      div.append(dt, dd);
      list.appendChild(div);
    }
  }

  async function refreshStats() {
    try {
      const response = await fetch("/stats", { cache: "no-store" });
      if (response.ok) showStats(await response.json());
    } catch (error) {
      // The gateway is away; the connection badge says so.
    }
  }

  function statsSoon() {
    if (statsTimer) return;
    statsTimer = setTimeout(() => { statsTimer = null; refreshStats(); }, 300);
  }

  $("pause").addEventListener("click", () => {
    paused = !paused;
    const button = $("pause");
    button.setAttribute("aria-pressed", String(paused));
    button.textContent = paused ? "Resume" : "Pause";
    const count = $("paused-count");
    if (paused) {
      count.textContent = "0 new while paused";
      count.hidden = false;
      return;
    }
    count.hidden = true;
    const waiting = pending;
    pending = [];
    for (const a of waiting) addOnTop(a, true);
    updateShown();
    notice(waiting.length + " new while paused, now shown on top.");
    refreshStats();
  });

  $("reset").addEventListener("click", async () => {
    if (!confirm("Reset the gateway? It forgets every stored item, violation and count (POST /reset), " +
                 "as if it had just started, and this list is cleared. Apps sending to it are not affected.")) return;
    try {
      const response = await fetch("/reset", { method: "POST" });
      if (!response.ok) throw new Error("POST /reset answered " + response.status);
      clearRows();
      notice("The gateway was reset: everything it held is forgotten.");
    } catch (error) {
      notice("Reset failed: " + error.message);
    }
    refreshStats();
  });

  // A select or a checkbox may tell only "change"; text fields tell "input" at each key.
  for (const input of Object.values(filters)) {
    input.addEventListener("input", applyFilters);
    input.addEventListener("change", applyFilters);
  }

  updateShown();
  connect();
  setInterval(refreshStats, STATS_EVERY_MS);
})();
