// Graphs of the last 15 minutes, with uPlot.
const SPAN = 15 * 60;

// Returns its element, and a function that draws rows of [seconds, value of each label].
export function chart(title, height, labels) {
  const node = document.createElement('figure');
  const color = () => getComputedStyle(node).color;
  const grid = { stroke: '#8883', width: 1 };
  const axis = { stroke: color, grid, ticks: { ...grid, size: 4 }, font: '11px system-ui' };
  const series = labels.map((label, place) => ({ label, width: 1.5, points: { show: false },
    stroke: `oklch(.63 .14 ${(250 + place * 137) % 360})`, dash: place % 2 ? [5, 3] : [] }));
  const plot = new uPlot({ title, width: 300, height, legend: { show: labels.length > 1, live: false },
    cursor: { show: false }, series: [{}, ...series],
    scales: { x: { range: (_, __, max) => [(max || Date.now() / 1000) - SPAN, max || Date.now() / 1000] } },
    axes: [{ ...axis, values: '{HH}:{mm}', size: 26, space: 80 }, { ...axis, size: 46, space: 24 }],
  }, [[], ...labels.map(() => [])], node);
  new ResizeObserver(([{ contentRect }]) => contentRect.width && plot.setSize({ width: contentRect.width, height }))
    .observe(node);
  return [node, (rows) => plot.setData([0, ...labels].map((_, place) => rows.map((row) => row[place] ?? null)))];
}
