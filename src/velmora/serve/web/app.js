"use strict";
// The search page: searches as you type, keeps the query in the URL, and shows files.
// Every piece of file text reaches the page through textContent, never as markup.

const $ = (id) => document.getElementById(id);
const form = $("search"), summary = $("summary"), results = $("results");
const viewer = $("viewer"), fileLines = $("file-lines").tBodies[0];
const FIELDS = ["q", "repo", "glob", "type", "context"], FLAGS = ["fixed", "ignore", "word"];
const DEBOUNCE_MS = 150, LIMIT = 1000;
let running = null, typingTimer = 0;

function stateFromForm() {
  const state = new URLSearchParams();
  for (const name of FIELDS) if ($(name).value && !(name === "context" && $(name).value === "0")) state.set(name, $(name).value);
  for (const name of FLAGS) if ($(name).checked) state.set(name, "1");
  return state;
}

function formFromState(state) {
  for (const name of FIELDS) if (name !== "repo" || state.has("repo")) $(name).value = state.get(name) || (name === "context" ? "0" : "");
  for (const name of FLAGS) $(name).checked = state.get(name) === "1";
}

function apiQuery(state) {
  const api = new URLSearchParams({ q: state.get("q") || "", limit: LIMIT });
  if (state.has("repo")) api.set("repo", state.get("repo"));
  if (state.get("fixed")) api.set("fixed", "1");
  if (state.get("ignore")) api.set("case", "0");
  if (state.get("word")) api.set("word", "1");
  if (state.get("context")) api.set("context", state.get("context"));
  for (const name of ["glob", "type"]) {
    for (const value of (state.get(name) || "").split(/\s+/)) if (value) api.append(name, value);
  }
  return api;
}

function el(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

// rg's records give match bounds in UTF-8 bytes; the page works in JavaScript strings.
const encoder = new TextEncoder(), decoder = new TextDecoder();
function highlighted(text, submatches) {
  const fragment = document.createDocumentFragment();
  const bytes = encoder.encode(text);
  let at = 0;
  for (const { start, end } of submatches) {
    fragment.append(decoder.decode(bytes.slice(at, start)), el("mark", "", decoder.decode(bytes.slice(start, end))));
    at = end;
  }
  fragment.append(decoder.decode(bytes.slice(at)));
  return fragment;
}

function fileLink(state, repo, path, line) {
  const link = new URLSearchParams(state);
  link.set("repo", repo);
  link.set("path", path);
  link.set("line", line);
  return "?" + link;
}

const counted = (n, noun) => `${n} ${noun}${n === 1 ? "" : noun.endsWith("h") ? "es" : "s"}`;

function setSummary(text, isError) {
  summary.textContent = text;
  summary.classList.toggle("error", Boolean(isError));
}

async function runSearch(state) {
  if (running) running.abort();
  results.replaceChildren();
  if (!state.get("q")) { setSummary(""); return; }
  const controller = running = new AbortController();
  setSummary("Searching…");
  let response;
  try {
    response = await fetch("api/search?" + apiQuery(state), { signal: controller.signal });
  } catch (error) {
    if (!controller.signal.aborted) setSummary("The server did not answer.", true);
    return;
  }
  if (!response.ok) {
    const reason = await response.json().catch(() => ({ error: response.statusText }));
    setSummary(reason.error, true);
    return;
  }
  let section = null, lines = null, lastLine = 0, matches = 0, files = 0, buffer = "", finished = false;
  const show = (record) => {
    const data = record.data;
    if (record.type === "begin") {
      section = el("section", "file");
      const heading = el("h2");
      const where = state.has("repo") || $("repo").hidden ? "" : `${data.repo}: `;
      heading.append(el("span", "", where + data.path.text), el("span", "count", ""));
      lines = el("div", "lines");
      section.append(heading, lines);
      results.append(section);
      lastLine = 0;
      files += 1;
    } else if (record.type === "match" || record.type === "context") {
      if (lastLine && data.line_number > lastLine + 1) lines.append(el("span", "gap", "⋯"));
      lastLine = data.line_number;
      const row = el("a", record.type);
      row.href = fileLink(state, data.repo, data.path.text, data.line_number);
      row.dataset.path = data.path.text;
      row.dataset.line = data.line_number;
      const text = data.lines.text.replace(/\n$/, "");
      row.append(el("span", "num", String(data.line_number)), el("span", "text"));
      row.lastChild.append(highlighted(text, data.submatches));
      lines.append(row);
      if (record.type === "match") {
        matches += 1;
        section.querySelector(".count").textContent = ` ${lines.querySelectorAll(".match").length}`;
      }
    } else if (record.type === "summary") {
      finished = true;
      const limited = data.limited ? ` (stopped at ${LIMIT})` : "";
      setSummary(`${counted(data.stats.matches, "match")}${limited} in ${counted(data.stats.searches_with_match, "file")} · ${data.repo ?? "every repository"}` + (data.reason ? ` · ${data.reason}` : ""));
    } else if (record.type === "error") {
      finished = true;
      setSummary(data.message, true);
    }
  };
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  try {
    for (;;) {
      const { value, done } = await reader.read();
      if (done) break;
      buffer += value;
      const parts = buffer.split("\n");
      buffer = parts.pop();
      for (const part of parts) if (part) show(JSON.parse(part));
      if (!finished) setSummary(`${counted(matches, "match")} in ${counted(files, "file")} so far…`);
    }
  } catch (error) {
    if (!controller.signal.aborted) setSummary("The answer was cut off.", true);
  }
}

async function showFile(state) {
  const path = state.get("path"), line = Number(state.get("line")) || 1;
  results.hidden = true;
  viewer.hidden = false;
  $("file-path").textContent = `${path}:${line}`;
  $("share").href = location.href;
  const back = new URLSearchParams(state);
  back.delete("path");
  back.delete("line");
  $("back").href = "?" + back;
  fileLines.replaceChildren();
  $("outline").replaceChildren();
  const api = new URLSearchParams({ path });
  if (state.has("repo")) api.set("repo", state.get("repo"));
  const response = await fetch("api/file?" + api);
  const answer = await response.json().catch(() => ({ error: response.statusText }));
  if (!response.ok) { setSummary(answer.error, true); return; }
  const text = answer.text.endsWith("\n") ? answer.text.slice(0, -1) : answer.text;
  text.split("\n").forEach((content, index) => {
    const row = el("tr");
    row.id = `L${index + 1}`;
    row.append(el("td", "num", String(index + 1)), el("td", "", content));
    fileLines.append(row);
  });
  showOutline(state, path, answer.symbols);
  const target = $(`L${line}`);
  if (target) {
    target.classList.add("target");
    target.scrollIntoView({ block: "center" });
  }
  $("back").focus({ preventScroll: true });
}

// The file's definitions beside it, each a link to its line, which is marked in the text.
function showOutline(state, path, symbols) {
  const outline = $("outline");
  for (const symbol of symbols) {
    const link = el("a");
    link.href = fileLink(state, state.get("repo"), path, symbol.line);
    link.style.paddingLeft = `${symbol.scope ? symbol.scope.split(/\.|::/).length : 0}em`;
    link.append(el("span", "kind", `${symbol.kind} `), symbol.name);
    outline.append(link);
    const row = $(`L${symbol.line}`);
    if (row) row.classList.add("definition");
  }
}

function render() {
  const state = new URLSearchParams(location.search);
  formFromState(state);
  if (state.has("path")) {
    showFile(state);
    return;
  }
  viewer.hidden = true;
  results.hidden = false;
  runSearch(state);
}

function searchNow(push) {
  const url = "?" + stateFromForm();
  if (url !== location.search || push) history[push ? "pushState" : "replaceState"](null, "", url);
  render();
}

form.addEventListener("input", () => {
  clearTimeout(typingTimer);
  typingTimer = setTimeout(() => searchNow(false), DEBOUNCE_MS);
});
form.addEventListener("submit", (event) => {
  event.preventDefault();
  clearTimeout(typingTimer);
  searchNow(true);
});
document.addEventListener("click", (event) => {
  const link = event.target.closest("a[href^='?']");
  if (!link || event.ctrlKey || event.metaKey || event.shiftKey || event.button !== 0) return;
  event.preventDefault();
  history.pushState(null, "", link.getAttribute("href"));
  render();
});
document.addEventListener("keydown", (event) => {
  if (event.key === "/" && document.activeElement.tagName !== "INPUT") {
    event.preventDefault();
    $("q").focus();
  } else if (event.key === "Escape" && !viewer.hidden) {
    history.back();
  }
});
window.addEventListener("popstate", render);

fetch("api/status").then((response) => response.json()).then((status) => {
  const wanted = new URLSearchParams(location.search).get("repo");
  $("repo").append(new Option("every repository", "", false, !wanted));
  for (const repo of status.repositories) $("repo").append(new Option(repo.name, repo.name, false, repo.name === wanted));
  $("repo").hidden = status.repositories.length < 2;
});
render();
