// Graphs of the last 15 minutes, with uPlot.
const SPAN = 15 * 60;
const COLORS = ['--line1', '--line2', '--line3', '--line4', '--line5', '--line6'];
const color = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

// Returns a function that draws rows of [seconds, value of each label]; a small one has no legend.
export function chart(node, height, labels, small = false) {
  let plot = null;
  let last = null;
  const make = () => {
    const axis = { stroke: color('--muted'), grid: { stroke: color('--line'), width: 1 },
      ticks: { stroke: color('--line'), size: 4 }, font: '11px system-ui' };
    plot?.destroy();
    plot = new uPlot({
      width: Math.max(200, node.clientWidth), height, cursor: { y: false, points: { size: 6 } },
        legend: { show: !small && labels.length > 1, live: false },
      scales: { x: { range: (_, __, max) => [(max || Date.now() / 1000) - SPAN, max || Date.now() / 1000] } },
      axes: [{ ...axis, values: '{HH}:{mm}', size: 26, space: small ? 90 : 60 }, { ...axis, size: 46, space: 24 }],
      series: [{ value: '{HH}:{mm}:{ss}' }, ...labels.map((label, place) => ({
        label, spanGaps: false, width: place % 2 && small ? 2 : 1.5, stroke: color(COLORS[place % COLORS.length]),
        dash: small ? (place ? [4, 3] : []) : [[], [6, 3], [2, 3]][Math.floor(place / COLORS.length)],
          points: { show: false } }))],
    }, last ?? [[], ...labels.map(() => [])], node);
  };
  const draw = (rows) => {
    if (!node.isConnected || !node.clientWidth) return;
    last = [0, ...labels].map((_, place) => rows.map((row) => row[place] ?? null));
    if (plot) plot.setData(last);
    else make();
  };
  new ResizeObserver(() => { if (plot
    && node.clientWidth) plot.setSize({ width: node.clientWidth, height }); }).observe(node);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () =>
    { if (plot && node.isConnected) make(); });
  return draw;
}
