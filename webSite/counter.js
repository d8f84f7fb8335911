// Shared by the counter pages. A page gets its data from the URL fragment, or, when opened
// without one, asks the device server with "@". It never sends a command: a command would make
// this pad page the teller's current page, and a page that leaves stops the teller's preview,
// so the one connection is opened only when needed and kept while the page lives.
"use strict";

const Counter = (() => {
  // The device server; a test may name another with "?ws=ws://127.0.0.1:<port>".
  const SERVER = (() => {
    const asked = new URLSearchParams(location.search).get("ws");
    return asked && /^ws:\/\/(127\.0\.0\.1|localhost|\[::1\]):\d+$/.test(asked) ? asked : "ws://127.0.0.1:1818";
  })();
  let socket = null;
  let opening = null;

  // "no=12,name=Li" or a JSON object; values stay texts unless the JSON says otherwise.
  function parseData(text) {
    text = (text || "").trim();
    if (!text) return {};
    if (text.startsWith("{")) {
      try { const o = JSON.parse(text); return o && typeof o === "object" ? o : {}; } catch (e) { return {}; }
    }
    const data = {};
    for (const item of text.split(",")) {
      const eq = item.indexOf("=");
      if (eq > 0) data[item.slice(0, eq).trim()] = item.slice(eq + 1).trim();
    }
    return data;
  }

  // Page data as the server answers "@"; preview frames (bare base64 JPEG) and framed replies
  // broadcast to every page are not.
  function looksLikePageData(text) {
    if (text === "") return true;
    if (text.startsWith("Begin") || text.startsWith("/9j/")) return false;
    return text.startsWith("{") || /^\s*[A-Za-z_][\w.-]*=/.test(text);
  }

  function connect() {
    if (socket && socket.readyState === WebSocket.OPEN) return Promise.resolve(socket);
    if (opening) return opening;
    opening = new Promise((resolve, reject) => {
      const ws = new WebSocket(SERVER);
      ws.onopen = () => { socket = ws; opening = null; resolve(ws); };
      ws.onerror = () => { opening = null; reject(new Error("device server not reachable")); };
    });
    return opening;
  }

  function load() {
    let fragment = location.hash.replace(/^#/, "");
    try { fragment = decodeURIComponent(fragment); } catch (e) { /* a stray "%": taken as it is */ }
    if (fragment) return Promise.resolve(parseData(fragment));
    return connect().then((ws) => new Promise((resolve) => {
      const onMessage = (e) => {
        if (typeof e.data !== "string" || !looksLikePageData(e.data)) return;
        ws.removeEventListener("message", onMessage);
        resolve(parseData(e.data));
      };
      ws.addEventListener("message", onMessage);
      ws.send("@");
    })).catch(() => ({}));
  }

  // Relayed by the server to the teller's page ("#" + text).
  function tellTeller(object) {
    return connect().then((ws) => ws.send("#" + JSON.stringify(object)));
  }

  function setText(id, value) {
    const el = document.getElementById(id);
    if (el) el.textContent = value === undefined || value === null || value === "" ? "—" : String(value);
  }

  function money(value) {
    const n = Number(value);
    return isFinite(n) && String(value).trim() !== "" ? "¥ " + n.toFixed(2) : String(value || "—");
  }

  return { parseData, looksLikePageData, load, tellTeller, setText, money };
})();
