// Draws the live-bytes chart of each input from the JSON beside it: one
// line per call site, a gap where a report did not list the site, a legend
// whose entries hide and show their line, and a tooltip per point.
(function () {
  'use strict';
  var SVG = 'http://www.w3.org/2000/svg';
  var COLOURS = ['#1f77b4', '#d62728', '#2ca02c', '#ff7f0e', '#9467bd',
                 '#8c564b', '#e377c2', '#17becf', '#bcbd22', '#7f7f7f'];
  var W = 760, H = 300, LEFT = 78, RIGHT = 16, TOP = 14, BOTTOM = 36;

  function el(name, attrs, parent) {
    var node = document.createElementNS(SVG, name);
    Object.keys(attrs).forEach(function (k) { node.setAttribute(k, String(attrs[k])); });
    if (parent) parent.appendChild(node);
    return node;
  }

  function bytes(n) {
    var units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'], u = 0;
    while (n >= 1024 && u < units.length - 1) { n /= 1024; u++; }
    return (u === 0 ? String(Math.round(n)) : n.toFixed(1)) + ' ' + units[u];
  }

  function niceMax(v) {
    if (v <= 0) return 1;
    var step = Math.pow(10, Math.floor(Math.log10(v)));
    var m = [1, 2, 2.5, 5, 10].find(function (f) { return f * step >= v; });
    return m * step;
  }

  function axes(svg, count, top, x, y) {
    for (var i = 0; i <= 4; i++) {
      var v = top * i / 4;
      el('line', {x1: LEFT, x2: W - RIGHT, y1: y(v), y2: y(v), 'class': 'grid'}, svg);
      el('text', {x: LEFT - 6, y: y(v) + 4, 'text-anchor': 'end', 'class': 'tick'}, svg)
        .textContent = bytes(v);
    }
    // At most about a dozen report labels, the latest always among them.
    var step = Math.max(1, Math.ceil(count / 12));
    for (var r = 0; r < count; r++) {
      if (r % step !== 0 && r !== count - 1) continue;
      if (r !== count - 1 && count - 1 - r < step / 2) continue;
      el('text', {x: x(r), y: H - BOTTOM + 16, 'text-anchor': 'middle', 'class': 'tick'}, svg)
        .textContent = '#' + (r + 1);
    }
    el('text', {x: (LEFT + W - RIGHT) / 2, y: H - 4, 'text-anchor': 'middle', 'class': 'axis'}, svg)
      .textContent = 'top report';
  }

  function seriesPath(points, x, y) {
    var d = '', pen = false;
    points.forEach(function (p, i) {
      if (!p) { pen = false; return; }
      d += (pen ? ' L' : ' M') + x(i).toFixed(1) + ' ' + y(p[0]).toFixed(1);
      pen = true;
    });
    return d.trim();
  }

  function drawSeries(svg, s, index, data, x, y) {
    var colour = COLOURS[index % COLOURS.length];
    var radius = data.reports.length > 60 ? 2 : 3.5;
    var g = el('g', {'class': 'series-group', 'data-uid': s.uid}, svg);
    el('path', {d: seriesPath(s.points, x, y), stroke: colour, 'class': 'series'}, g);
    s.points.forEach(function (p, i) {
      if (!p) return;
      var dot = el('circle', {cx: x(i), cy: y(p[0]), r: radius, fill: colour, 'class': 'point'}, g);
      el('title', {}, dot).textContent = s.uid + ' ' + s.label + '\nreport #' + (i + 1) +
        ' (' + data.reports[i].place + '): ' + bytes(p[0]) + ' in ' + p[1] + ' blocks';
    });
    return {group: g, colour: colour};
  }

  function legend(figure, series, drawn) {
    var list = document.createElement('ul');
    list.className = 'legend';
    series.forEach(function (s, i) {
      var item = document.createElement('li');
      var swatch = document.createElement('span');
      swatch.className = 'swatch';
      swatch.style.background = drawn[i].colour;
      item.appendChild(swatch);
      item.appendChild(document.createTextNode(s.uid + ' ' + s.label));
      item.title = 'hide or show this call site';
      item.addEventListener('click', function () {
        var off = item.classList.toggle('off');
        drawn[i].group.style.display = off ? 'none' : '';
      });
      list.appendChild(item);
    });
    figure.appendChild(list);
  }

  function render(figure) {
    var data = JSON.parse(document.getElementById(figure.dataset.source).textContent);
    var count = data.reports.length, max = 0;
    data.series.forEach(function (s) {
      s.points.forEach(function (p) { if (p && p[0] > max) max = p[0]; });
    });
    var top = niceMax(max);
    var x = function (i) {
      return count < 2 ? (LEFT + W - RIGHT) / 2 : LEFT + i * (W - LEFT - RIGHT) / (count - 1);
    };
    var y = function (v) { return H - BOTTOM - v / top * (H - TOP - BOTTOM); };
    var svg = el('svg', {viewBox: '0 0 ' + W + ' ' + H, role: 'img',
                         'aria-label': 'live bytes per call site'});
    figure.appendChild(svg);
    axes(svg, count, top, x, y);
    var drawn = data.series.map(function (s, i) { return drawSeries(svg, s, i, data, x, y); });
    legend(figure, data.series, drawn);
    figure.setAttribute('data-series', String(data.series.length));
  }

  document.querySelectorAll('figure.chart').forEach(function (figure) {
    try {
      render(figure);
    } catch (e) {
      window.tarvexRecordError('chart: ' + e);
    }
  });
  document.body.setAttribute('data-ready', '1');
})();
