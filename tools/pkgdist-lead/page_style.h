// The head of the report page: its style sheet, for light and dark screens and for narrow ones.
#pragma once

namespace pkgdist::lead_program {

inline constexpr const char* kPageStyle = R"(
:root { color-scheme: light dark; --ink: #1c2330; --soft: #5c6675; --line: #d9dee6; --page: #fff; --good: #1b7f4b;
  --bad: #b3261e; --bar: #3f6fb5; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6e9ee; --soft: #a0a9b8; --line: #3a4250; --page: #161a20;
  --good: #5cc48d; --bad: #ff8a80; --bar: #7ba7e6; } }
* { box-sizing: border-box; }
body { font: 15px/1.45 system-ui, sans-serif; color: var(--ink); background: var(--page); margin: 0; }
main { max-width: 940px; margin: 0 auto; padding: 12px 16px 40px; }
h1 { font-size: 1.5em; margin: .6em 0 .2em; } h2 { font-size: 1.1em; margin: 1.8em 0 .4em; }
p { margin: .3em 0; overflow-wrap: anywhere; } code { overflow-wrap: anywhere; }
.good { color: var(--good); } .bad { color: var(--bad); } .unit, .soft { color: var(--soft); }
.unit { font-size: .85em; margin: .2em 0; } .end { text-align: right; }
dl { display: grid; grid-template-columns: repeat(auto-fit, minmax(150px, 1fr)); gap: 10px 18px; margin: 1em 0; }
dt { color: var(--soft); font-size: .85em; } dd { margin: 0; font-size: 1.15em; overflow-wrap: anywhere; }
dl.small dd { font-size: 1em; }
.plot { position: relative; height: 220px; margin: 18px 6px 22px 48px; }
.low { height: 110px; }
.plot > svg { position: absolute; inset: 0; width: 100%; height: 100%; overflow: visible; }
.plot span { position: absolute; font-size: 12px; line-height: 1; color: var(--soft); white-space: nowrap; }
.plot .x { top: calc(100% + 6px); transform: translateX(-50%); }
.plot .y { right: calc(100% + 6px); transform: translateY(-50%); }
.plot span.mark { bottom: calc(100% + 2px); transform: translateX(-50%); color: var(--bad); font-weight: bold; }
line { stroke: var(--line); vector-effect: non-scaling-stroke; } line.mark { stroke: var(--bad); stroke-dasharray: 3 3; }
polyline { fill: none; stroke-width: 2; stroke: var(--line); vector-effect: non-scaling-stroke; }
rect.bar { fill: var(--bar); }
.c0 { stroke: #d1495b; } .c1 { stroke: #3f6fb5; } .c2 { stroke: #2a9d70; } .c3 { stroke: #e08e1b; }
.c4 { stroke: #8657b5; } .c5 { stroke: #1aa0b0; } .c6 { stroke: #9a6a3a; } .c7 { stroke: #c2539c; }
.key { white-space: nowrap; margin-right: 1em; } .key svg { width: 22px; height: 10px; }
ol { padding-left: 1.6em; margin: .3em 0; } li { overflow-wrap: anywhere; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: 4px 12px 4px 0; border-bottom: 1px solid var(--line); vertical-align: top; }
td.n, th.n { text-align: right; font-variant-numeric: tabular-nums; } td.name, td.why { overflow-wrap: anywhere; }
meter { width: 90px; } details ul { margin: .2em 0; padding-left: 1.2em; }
@media (max-width: 600px) {
  table, tbody { display: block; } tr.head { display: none; }
  tr { display: flex; flex-wrap: wrap; gap: 1px 14px; padding: 5px 0; border-bottom: 1px solid var(--line); }
  td { border: 0; padding: 0; } td.why, td.name { flex-basis: 100%; } td:first-child { flex-basis: 100%; font-weight: 600; }
  td[data-head]::before { content: attr(data-head) " "; color: var(--soft); font-size: .85em; }
}
)";

}  // namespace pkgdist::lead_program
