#include "PageParts.h"

// One column on a phone, as many as fit on a wall screen, where the type grows with the width. Both
// colour schemes keep text at a contrast of 4.5 or more against its ground.
const char* const kPageStyle = R"css(
:root {
  color-scheme: light dark;
  --ground: #f3f5f8; --card: #ffffff; --ink: #17202c; --soft: #52606f; --line: #d8dfe7;
  --track: #e8edf2; --accent: #0b65c2; --good: #18723a; --warn: #8a5a00; --bad: #b3261e;
}
@media (prefers-color-scheme: dark) {
  :root {
    --ground: #0e1319; --card: #171f28; --ink: #e9eef4; --soft: #a3b0be; --line: #2b3744;
    --track: #24303c; --accent: #62adff; --good: #56c98a; --warn: #e6b450; --bad: #ff8a80;
  }
}
* { box-sizing: border-box; margin: 0; }
html { font-size: clamp(16px, 12px + 0.38vw, 30px); }
body {
  font: 1rem/1.45 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif;
  font-variant-numeric: tabular-nums;
  background: var(--ground); color: var(--ink); padding: clamp(0.75rem, 2.5vw, 2rem);
}
#away {
  display: none; margin-bottom: 1rem; padding: 0.6rem 1rem; border-radius: 0.5rem;
  border: 2px solid var(--bad); color: var(--bad); font-weight: 600;
}
.away #away { display: block; }
.away main { opacity: 0.55; }
h1 { font-size: 1.6rem; letter-spacing: -0.01em; }
h2 { font-size: 1.2rem; overflow-wrap: anywhere; }
.top { display: flex; flex-wrap: wrap; align-items: baseline; gap: 0.2rem 1.2rem; }
.soft { color: var(--soft); font-size: 0.9rem; overflow-wrap: anywhere; }
progress {
  display: block; width: 100%; height: 0.6rem; margin-top: 0.8rem; border: 0;
  border-radius: 0.3rem; background: var(--track); overflow: hidden; appearance: none;
}
progress::-webkit-progress-bar { background: var(--track); }
progress::-webkit-progress-value { background: var(--accent); }
progress::-moz-progress-bar { background: var(--accent); }
dl { display: grid; gap: 0.7rem 0.8rem; grid-template-columns: repeat(3, 1fr); }
dt { color: var(--soft); font-size: 0.82rem; }
dd { font-weight: 600; white-space: nowrap; }
.total { margin: 1.1rem 0; grid-template-columns: repeat(auto-fit, minmax(9rem, 1fr)); }
.total dd { font-size: 1.5rem; line-height: 1.2; }
.cameras { display: grid; gap: 1rem; grid-template-columns: repeat(auto-fit, minmax(min(100%, 25rem), 1fr)); }
article {
  background: var(--card); border: 1px solid var(--line); border-radius: 0.8rem;
  padding: 1rem 1.1rem; display: grid; gap: 0.8rem; align-content: start; min-width: 0;
}
.head { display: flex; justify-content: space-between; align-items: start; gap: 0.8rem; }
.state {
  border: 1.5px solid currentColor; border-radius: 1rem; padding: 0.05rem 0.7rem;
  font-size: 0.85rem; font-weight: 600; white-space: nowrap;
}
.recording { color: var(--good); } .connecting { color: var(--accent); }
.waiting { color: var(--warn); } .stopped, .alarm { color: var(--bad); }
.why { font-weight: 600; }
svg { display: block; width: 100%; border-radius: 0.25rem; background: var(--track); }
.rate { height: 3.2rem; } .rate path { fill: var(--accent); }
.time { height: 1.5rem; }
.time .there { fill: var(--good); } .time .gap { fill: var(--bad); }
.key { display: inline-block; width: 0.7em; margin: 0 0.3em 0 0.8em; }
.key.there { height: 0.8em; background: var(--good); }
.key.gap { height: 0.2em; background: var(--bad); }
.ticks { display: flex; justify-content: space-between; }
.caption { display: flex; flex-wrap: wrap; justify-content: space-between; gap: 0 1rem; margin-bottom: 0.2rem; }
.empty { padding: 2rem; text-align: center; border: 2px dashed var(--line); border-radius: 0.8rem; }
)css";

const char* const kPageScript = R"js(
const live = document.getElementById("live");
async function refresh() {
  try {
    const answer = await fetch("/live", { signal: AbortSignal.timeout(5000) });
    if (!answer.ok) throw new Error(answer.status);
    live.innerHTML = await answer.text();
    document.body.classList.remove("away");
  } catch (error) {
    document.body.classList.add("away");
  }
  setTimeout(refresh, 1000);
}
setTimeout(refresh, 1000);
)js";
