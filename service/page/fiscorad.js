// The page of fiscorad. Texts from tills and from the device become text nodes, never markup.
"use strict";

const $ = (id) => document.getElementById(id);
const money = new Intl.NumberFormat("pt-BR", { style: "currency", currency: "BRL" });
const integer = new Intl.NumberFormat("pt-BR");
const moment = new Intl.DateTimeFormat("pt-BR", { dateStyle: "short", timeStyle: "medium" });
const clock = new Intl.DateTimeFormat("pt-BR", { timeStyle: "medium" });
const day = new Intl.DateTimeFormat("pt-BR", { dateStyle: "short" });
const hourAndMinute = new Intl.DateTimeFormat("pt-BR", { hour: "2-digit", minute: "2-digit" });

const DEVICE = {
  desconhecido: ["Ainda não consultado", "", "O serviço ainda não falou com o equipamento."],
  respondendo: ["Respondendo", "good", "O equipamento respondeu à última chamada."],
  ocupado: ["Em uma chamada", "busy", "O equipamento está trabalhando."],
  resolvendo: ["Resolvendo uma venda", "busy", "Uma chamada terminou sem resposta; o serviço pergunta ao equipamento o que aconteceu."],
  ausente: ["Ausente", "bad", "O equipamento não foi encontrado ou não responde."],
  "codigo-recusado": ["Código recusado", "bad", "O equipamento recusou o código de ativação. Corrija o arquivo do código; se o serviço veio do pacote, reinicie-o depois. Até lá, nada é enviado."],
  divergente: ["Divergente", "bad", "O equipamento mostra um documento que o registro não explica. Nada é enviado até alguém confirmar."],
};
const STATE = {
  "na-fila": ["Na fila", "busy"], enviada: ["Enviada", "busy"], incerta: ["Incerta", "busy"], emitida: ["Emitida", "good"],
  recusada: ["Recusada", "bad"], retirada: ["Retirada", ""], "a-decidir": ["A decidir", "bad"], abandonada: ["Abandonada", ""],
};

let events = null;
let older = null;  // where the next page of documents begins
let lost = false;  // the stream of events
let summaryTimer = 0, chartAt = 0;

/** An element with a class, attributes and children; strings become text. */
function make(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) {
    if (name === "onclick") element.addEventListener("click", value);
    else element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

function facts(list, pairs) {
  list.replaceChildren(...pairs.filter(([, value]) => value !== undefined && value !== "")
    .map(([name, value]) => make("div", null, make("dt", null, name), make("dd", null, value))));
}

const pill = (state) => make("span", { class: `pill ${(STATE[state] || [])[1] || ""}` }, (STATE[state] || [state])[0]);
/** `text` with its RFC 3339 times as people write them. */
const withReadableTimes = (text) => text.replace(/\d{4}-\d\d-\d\dT[\d:]+(?:Z|[+-]\d\d:\d\d)/g, (time) => moment.format(new Date(time)));
/** The time alone if it is today's. */
const shortMoment = (date) => (day.format(date) === day.format(new Date()) ? clock.format(date) : moment.format(date));
const pathOf = (doc) => `/v1/${doc.tipo === "venda" ? "vendas" : "cancelamentos"}/${encodeURIComponent(doc.chave)}`;
const keyText = (digits) => make("span", { class: "access-key" }, digits);
const refusalOf = (doc) => (doc.EEEEE ? `${doc.EEEEE} ${doc.mensagem || ""}` : "A biblioteca recusou o documento.");
const valueOf = (doc) => (doc.valorTotalCFe ? money.format(Number(doc.valorTotalCFe)) : "");

/** Answers of the service as JSON; throws an Error with its text for people. */
async function call(method, path, body) {
  const headers = { "X-Fiscorad": "pagina" };
  if (body !== undefined) headers["Content-Type"] = "application/json";
  const response = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
  if (response.status === 401) showSignIn();
  const text = await response.text();
  const answer = text && (response.headers.get("Content-Type") || "").includes("json") ? JSON.parse(text) : {};
  if (!response.ok) throw new Error(answer.detail || `O serviço respondeu ${response.status}.`);
  return answer;
}

// ---- signing in ----

function showSignIn() {
  if (events) events.close();
  events = null;
  clearTimeout(summaryTimer);
  summaryTimer = 0;
  for (const dialog of [$("details"), $("confirmation")]) if (dialog.open) dialog.close();
  for (const id of ["rows", "timeline", "details-facts", "details-actions", "confirmation-evidence", "device-facts", "alarms", "advice", "chart"]) $(id).replaceChildren();
  for (const id of ["sales", "total", "refused", "queue", "undecided", "device-state", "device-words", "details-title", "chart-words", "who-name", "live"]) $(id).textContent = "";
  $("shop").hidden = $("who").hidden = true;
  $("sign-in").hidden = false;
  $("token").focus();
}

async function enter(session) {
  $("sign-in").hidden = true;
  $("shop").hidden = false;
  $("who").hidden = Boolean(session.semToken);
  $("who-name").textContent = session.nome || "";
  $("live").textContent = session.semToken ? "Sem tokens: só este computador é atendido." : "";
  listen();
  await Promise.all([showDocuments(), showSummary(), showChart()]);
}

$("sign-in-form").addEventListener("submit", async (event) => {
  event.preventDefault();
  $("sign-in-error").textContent = "";
  try {
    const session = await call("POST", "/v1/sessao", { token: $("token").value.trim() });
    $("token").value = "";
    await enter(session);
  } catch (error) {
    $("sign-in-error").textContent = error.message;
  }
});

$("sign-out").addEventListener("click", async () => {
  await call("DELETE", "/v1/sessao").catch(() => {});
  showSignIn();
});

// ---- what is told as it happens ----

function listen() {
  events = new EventSource("/v1/eventos");
  events.addEventListener("equipamento", (event) => showDevice(JSON.parse(event.data)));
  events.addEventListener("documento", (event) => {
    const doc = JSON.parse(event.data);
    update(doc);
    soon();
  });
  events.addEventListener("open", () => {
    if (!lost) return;
    lost = false;
    $("live").textContent = "";
    showOrSay();  // what changed meanwhile is not told again
    showSummary();
    showChart();
  });
  events.addEventListener("error", () => {
    lost = true;
    $("live").textContent = "Sem conexão com o serviço; tentando de novo…";
    if (events && events.readyState === EventSource.CLOSED) setTimeout(start, 3000);
  });
}

/** Brings the figures up to date, at most twice a second, and the chart every 20 seconds: it is larger. */
function soon() {
  if (summaryTimer) return;
  summaryTimer = setTimeout(() => {
    summaryTimer = 0;
    showSummary();
    if (Date.now() - chartAt > 20e3) showChart();
  }, 500);
}

let device = { estado: "", alarmes: [] };  // as it was told last
function showDevice(now) {
  const before = device.estado;
  device = now;
  const [name, colour, words] = DEVICE[device.estado] || [device.estado, "", ""];
  $("device-state").textContent = name;
  $("device-state").className = `pill ${colour}`;
  $("device-words").textContent = words;
  $("device").className = `card device ${colour}`;
  $("queue").textContent = integer.format(device.fila);
  const last = device.ultimaChamada;
  facts($("device-facts"), [
    ["Número de série", device.numeroDeSerie],
    ["Último documento", device.ultimoDocumento && keyText(device.ultimoDocumento)],
    ["Última chamada", last && `${last.operacao}, ${moment.format(new Date(last.inicio))}, ${integer.format(last.duracaoMs)} ms, ${last.EEEEE || "sem resposta"}`],
    ["Resolvendo", device.resolvendo],
  ]);
  $("alarms").replaceChildren(...device.alarmes.map((text) => make("p", null, withReadableTimes(text))));
  $("confirm-device").hidden = device.estado !== "divergente";
  if (device.estado !== "ausente") $("device-advice").hidden = true;
  else if (before !== "ausente") showAdvice();
}

async function showAdvice() {
  const told = await call("GET", "/v1/equipamento/diagnostico").catch(() => ({ passos: [] }));
  const advice = told.passos.filter((step) => step.resultado === "error" || step.resultado === "warning")
    .map((step) => make("li", null, `${step.achado}. ${step.conselho}`));
  $("advice").replaceChildren(...(advice.length ? advice : [make("li", null, "Confira o cabo, a porta USB e a energia do equipamento.")]));
  $("device-advice").hidden = device.estado !== "ausente";
}

async function showSummary() {
  const today = await call("GET", "/v1/resumo").catch(() => null);
  if (!today) return;
  $("sales").textContent = integer.format(today.emitidas);
  $("total").textContent = money.format(Number(today.total));
  $("refused").textContent = integer.format(today.recusadas);
  $("queue").textContent = integer.format(today.fila);
  $("undecided").textContent = integer.format(today.aDecidir);
  $("undecided").parentElement.classList.toggle("alert", today.aDecidir > 0);
}

// ---- durations of the calls ----

const SVG = "http://www.w3.org/2000/svg";
function draw(tag, attributes, text) {
  const element = document.createElementNS(SVG, tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  if (text !== undefined) element.textContent = text;
  return element;
}

async function showChart() {
  const hours = Number($("hours").value);
  const answer = await call("GET", `/v1/chamadas?horas=${hours}`).catch(() => null);
  if (!answer) return;
  chartAt = Date.now();
  const calls = answer.chamadas;
  const width = Math.max($("chart").clientWidth, 280);
  const height = 152, left = 44, bottom = 22, top = 8, right = 10;
  const end = Date.now(), begin = end - hours * 3600e3;
  const longest = calls.reduce((ms, made) => Math.max(ms, made.duracaoMs), 0);
  const most = [2000, 4000, 10000, 20000, 60000, 120000].find((ms) => ms >= longest) || longest;
  const x = (time) => left + (width - left - right) * (time - begin) / (end - begin);
  const y = (ms) => top + (height - top - bottom) * (1 - ms / most);
  const svg = draw("svg", { viewBox: `0 0 ${width} ${height}`, role: "img", "aria-labelledby": "chart-title chart-words" });
  for (const part of [0, 0.5, 1]) {
    svg.append(draw("line", { class: "grid", x1: left, x2: width - right, y1: y(part * most), y2: y(part * most) }),
      draw("text", { x: left - 6, y: y(part * most) + 4, "text-anchor": "end" }, `${(part * most / 1000).toLocaleString("pt-BR", { maximumFractionDigits: 1 })} s`),
      draw("text", { x: x(begin + part * (end - begin)), y: height - 6, "text-anchor": ["start", "middle", "end"][part * 2] }, hourAndMinute.format(begin + part * (end - begin))));
  }
  const drawn = new Set();  // one dot a place: there may be tens of thousands of calls
  for (const made of calls) {
    const failed = made.status !== 0;
    const place = { cx: Math.round(x(Date.parse(made.inicio))), cy: Math.round(y(made.duracaoMs)) };
    const name = `${place.cx} ${place.cy} ${failed}`;
    if (drawn.has(name)) continue;
    drawn.add(name);
    const dot = draw("circle", { class: failed ? "failed" : "ok", ...place, r: failed ? 4 : 3 });
    dot.append(draw("title", {}, `${made.operacao}: ${integer.format(made.duracaoMs)} ms${failed ? `, status ${made.status}` : ""}`));
    svg.append(dot);
  }
  $("chart").replaceChildren(svg);
  const sorted = calls.map((made) => made.duracaoMs).sort((one, other) => one - other);
  $("chart-words").textContent = sorted.length
    ? `Chamadas: ${integer.format(sorted.length)}. Metade em até ${integer.format(sorted[sorted.length >> 1])} ms; ${integer.format(calls.filter((made) => made.status !== 0).length)} sem resposta válida.`
    : "Nenhuma chamada neste período.";
}
$("hours").addEventListener("change", showChart);

// ---- documents ----

function row(doc) {
  const actions = make("td", { class: "row-actions" });
  if (doc.documento) actions.append(make("a", { href: doc.documento, download: `${doc.chaveConsulta}.xml` }, "XML"));
  actions.append(make("button", { type: "button", onclick: () => showDetails(doc) }, "Detalhes"));
  const state = make("td", { class: "state" }, pill(doc.estado));
  if (doc.estado === "recusada") state.append(make("div", { class: "reason" }, refusalOf(doc)));
  const key = make("td", { class: "keys" }, make("code", null, doc.chave));
  if (doc.chaveConsulta) key.append(make("div", null, keyText(doc.chaveConsulta)));
  const line = make("tr", { "data-key": doc.chave },
    make("td", { class: "when" }, shortMoment(new Date(doc.recebidaEm))), key, make("td", { class: "till" }, doc.caixa || ""), state,
    make("td", { class: "number" }, valueOf(doc)), actions);
  return line;
}

function query() {
  const form = new FormData($("search"));
  const words = new URLSearchParams({ limite: "30" });
  for (const name of ["busca", "caixa", "estado"]) {
    const value = (form.get(name) || "").trim();
    if (value) words.set(name, value);
  }
  if (form.get("dia")) {
    words.set("desde", form.get("dia"));
    words.set("ate", form.get("dia"));
  }
  return { kind: form.get("tipo"), words };
}

async function showDocuments(after) {
  const { kind, words } = query();
  if (after) words.set("depois", after);
  const page = await call("GET", `/v1/${kind}?${words}`);
  const rows = page.documentos.map(row);
  if (after) $("rows").append(...rows);
  else $("rows").replaceChildren(...rows);
  older = page.depois;
  $("older").hidden = !older;
  $("empty").hidden = $("rows").childElementCount > 0;
}

/** Puts a document that has changed where it stands, or on top if it is new and nothing is searched for. */
function update(doc) {
  const { kind, words } = query();
  const fresh = row(doc);
  const present = [...$("rows").children].find((line) => line.dataset.key === doc.chave);
  if (present) present.replaceWith(fresh);
  else if (kind === (doc.tipo === "venda" ? "vendas" : "cancelamentos") && [...words.keys()].length === 1) $("rows").prepend(fresh);
  fresh.classList.add("fresh");
  $("empty").hidden = $("rows").childElementCount > 0;
  if ($("details").open && $("details").dataset.key === doc.chave) showDetails(doc);
}

const showOrSay = (after) => showDocuments(after).catch((error) => { $("live").textContent = error.message; });
$("search").addEventListener("submit", (event) => { event.preventDefault(); showOrSay(); });
$("search").addEventListener("reset", () => setTimeout(showOrSay));
$("older").addEventListener("click", () => showOrSay(older));

// ---- one document ----

async function showDetails(doc) {
  const told = await call("GET", `${pathOf(doc)}/tentativas`).catch((error) => { $("live").textContent = error.message; });
  if (!told) return;
  const now = told.documento;
  const dialog = $("details");
  dialog.dataset.key = now.chave;
  $("details-title").textContent = `${now.tipo === "venda" ? "Venda" : "Cancelamento"} ${now.chave}`;
  facts($("details-facts"), [
    ["Estado", pill(now.estado)], ["Caixa", now.caixa], ["Valor", valueOf(now)], ["Chave de acesso", now.chaveConsulta && keyText(now.chaveConsulta)],
    ["Resposta", now.EEEEE && `${now.EEEEE} ${now.mensagem || ""}`], ["Sessão", now.sessao], ["Tentativas", String(now.tentativas)],
    ["Recebida", moment.format(new Date(now.recebidaEm))], ["Concluída", now.concluidaEm && moment.format(new Date(now.concluidaEm))],
  ]);
  const steps = [
    ...told.historico.map((step) => ({ at: step.em, state: step.estado, text: step.pessoa ? `${step.texto} — ${step.pessoa}: ${step.motivo}` : step.texto })),
    ...told.tentativas.map((attempt) => ({ at: attempt.em, text: `tentativa na sessão ${attempt.sessao}, equipamento ${attempt.numeroDeSerie}; último documento antes dela: ${attempt.ultimoDocumento || "nenhum"}` })),
  ].sort((one, other) => Date.parse(one.at) - Date.parse(other.at));
  $("timeline").replaceChildren(...steps.map((step) => make("li", null,
    make("time", { datetime: step.at }, moment.format(new Date(step.at))), step.text, ...(step.state ? [" ", pill(step.state)] : []))));
  $("timeline-title").hidden = false;
  const evidence = steps.map((step) => `${moment.format(new Date(step.at))} — ${step.text}`);
  if (device.ultimoDocumento) evidence.push(`agora o último documento do equipamento ${device.numeroDeSerie} é ${device.ultimoDocumento}`);
  const actions = [];
  if (now.documento) actions.push(make("a", { href: now.documento, download: `${now.chaveConsulta}.xml` }, "Baixar XML assinado"));
  if (now.estado === "na-fila") actions.push(make("button", { type: "button", class: "danger", onclick: () => withdraw(now) }, "Retirar da fila"));
  if (now.estado === "a-decidir" || now.estado === "incerta")
    for (const [decision, label] of [["emitida", "Foi emitida…"], ["enviar-de-novo", "Enviar de novo…"], ["abandonada", "Abandonar…"]])
      actions.push(make("button", { type: "button", onclick: () => decide(now, decision, evidence) }, label));
  $("details-actions").replaceChildren(...actions);
  if (!dialog.open) dialog.showModal();
}
$("details-close").addEventListener("click", () => $("details").close());

// ---- what an administrator does, each after a confirmation ----

let pending = null;
function ask({ title, text, label, evidence = [], reason = false, accessKey = false, act }) {
  pending = act;
  $("confirmation-title").textContent = title;
  $("confirmation-text").textContent = text;
  $("confirmation-evidence").replaceChildren(...evidence.map((line) => make("li", null, line)));
  $("confirmation-error").textContent = "";
  $("reason").value = $("access-key").value = "";
  $("reason-label").hidden = !reason;
  $("reason").required = reason;
  $("access-key-label").hidden = !accessKey;
  $("access-key").required = accessKey;
  $("confirmation-go").textContent = label;
  $("confirmation").showModal();
}
$("confirmation-cancel").addEventListener("click", () => $("confirmation").close());
$("confirmation-form").addEventListener("submit", async (event) => {
  event.preventDefault();
  $("confirmation-go").disabled = true;
  $("confirmation-error").textContent = "";
  try {
    await pending({ reason: $("reason").value.trim(), accessKey: $("access-key").value.trim() });
    $("confirmation").close();
    showSummary();
  } catch (error) {
    $("confirmation-error").textContent = error.message;
  } finally {
    $("confirmation-go").disabled = false;
  }
});

/** The fields of an operation's answer, as the device named them. */
function showAnswer(operation, answer) {
  const dialog = $("details");
  delete dialog.dataset.key;
  $("details-title").textContent = operation;
  facts($("details-facts"), [["Status da chamada", String(answer.status)], ["Sessão", answer.sessao], ...Object.entries(answer.campos)]);
  $("timeline-title").hidden = true;
  $("timeline").replaceChildren();
  $("details-actions").replaceChildren();
  if (!dialog.open) dialog.showModal();
}

function withdraw(doc) {
  ask({ title: "Retirar da fila?", text: `${doc.chave} não será enviada ao equipamento, nem se o caixa a reenviar.`, label: "Retirar",
    act: async () => { await call("DELETE", pathOf(doc)); await showDetails(doc); } });
}

function decide(doc, decision, evidence) {
  const texts = {
    emitida: ["Registrar como emitida?", "Confira no equipamento ou na SEFAZ. Informe a chave de acesso do documento.", "Registrar"],
    "enviar-de-novo": ["Enviar de novo?", "Se o equipamento já emitiu este documento, ele será emitido duas vezes.", "Enviar de novo"],
    abandonada: ["Abandonar?", "O documento não será enviado nem resolvido. O caixa recebe “abandonada”.", "Abandonar"],
  };
  const [title, text, label] = texts[decision];
  ask({ title, text, label, evidence, reason: true, accessKey: decision === "emitida",
    act: async ({ reason, accessKey }) => {
      const body = { decisao: decision, motivo: reason };
      if (decision === "emitida") body.chaveConsulta = accessKey;
      await call("POST", `${pathOf(doc)}/decisao`, body);
      await showDetails(doc);
    } });
}

$("ask").addEventListener("click", () => ask({
  title: "Consultar o estado do equipamento?", text: "Faz um ConsultarStatusOperacional; uma venda que chegar agora espera cerca de um segundo.", label: "Consultar",
  act: async () => {
    const answer = await call("POST", "/v1/operacoes/ConsultarStatusOperacional", {});
    showAnswer("ConsultarStatusOperacional", answer);
    showChart();
  } }));
$("confirm-device").addEventListener("click", () => ask({
  title: "Voltar a vender neste equipamento?", text: "O serviço aceita o equipamento como está, com o último documento que ele mostra.", label: "Confirmar", reason: true,
  evidence: [...$("alarms").children].map((alarm) => alarm.textContent),
  act: async ({ reason }) => showDevice(await call("POST", "/v1/equipamento/confirmacao", { motivo: reason })) }));

async function start() {
  try {
    await enter(await call("GET", "/v1/sessao"));
  } catch (error) {
    $("sign-in-error").textContent = "";
    showSignIn();
  }
}
start();
