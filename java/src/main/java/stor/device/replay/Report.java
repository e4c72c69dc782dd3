package stor.device.replay;

import java.awt.Color;
import java.io.IOException;
import java.math.BigDecimal;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.function.ToDoubleFunction;
import org.HdrHistogram.Histogram;
import org.jfree.data.category.DefaultCategoryDataset;
import org.jfree.data.xy.XYSeries;
import org.jfree.data.xy.XYSeriesCollection;
import stor.device.replay.Latencies.Operation;
import stor.device.replay.Samples.Sample;
import stor.device.skiplist.MappedRange;
import stor.device.store.StoreSettings;
import stor.device.store.StoreStats;

/** The report of a run: one HTML file that needs nothing else. */
final class Report {
    private static final String STYLE = """
            body { font: 15px/1.45 sans-serif; color: #222; margin: 2em auto; max-width: 1180px;
                   padding: 0 1em; }
            h1 { font-size: 1.5em; } h2 { font-size: 1.15em; margin: 1.6em 0 .3em; }
            .charts { display: grid; grid-template-columns: repeat(auto-fit, minmax(480px, 1fr));
                      gap: 1.2em; }
            figure { margin: 0; } figcaption { color: #555; font-size: 13px; }
            svg { width: 100%; height: auto; }
            table { border-collapse: collapse; }
            td, th { padding: .15em 1.2em .15em 0; text-align: left; vertical-align: top; }
            td.n, th.n { text-align: right; font-variant-numeric: tabular-nums; }
            tr { border-bottom: 1px solid #eee; }
            .swatch { display: inline-block; width: .8em; height: .8em; margin: 0 .3em 0 1em;
                      border: 1px solid #bbb; }
            """;
    private static final double[] PERCENTILES = {50, 90, 99, 99.9, 99.99, 100};

    private final ReplayOptions options;
    private final Replay replay;
    private final Needs needs;
    private final String verdict;
    private final List<Sample> samples;
    private final Charts charts = new Charts();
    private final StringBuilder html = new StringBuilder();

    Report(ReplayOptions options, Replay replay, Needs needs, String verdict) {
        this.options = options;
        this.replay = replay;
        this.needs = needs;
        this.verdict = verdict;
        samples = replay.samples().all();
    }

    /** Writes the report. It takes the place of an older one only when it is complete. */
    void write(Path file, List<List<MappedRange>> layouts) throws IOException {
        build(layouts);
        Path part = file.resolveSibling(file.getFileName() + ".part");
        try {
            Files.writeString(part, html);
            Files.move(part, file, StandardCopyOption.REPLACE_EXISTING);
        } finally {
            Files.deleteIfExists(part);
        }
    }

    private void build(List<List<MappedRange>> layouts) {
        add("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                + "<title>Block store replay</title><style>\n%s</style></head><body>\n", STYLE);
        add("<h1>Block store replay</h1>\n<p>%s</p>\n", escape(verdict));
        add("<h2>What such a load needs</h2>\n");
        addTable(needs.table());
        addCharts();
        addLatencies();
        addPictures(layouts);
        add("<h2>Settings</h2>\n");
        addTable(settings());
        add("</body></html>\n");
    }

    private void addCharts() {
        add("<h2>In the course of the run</h2>\n<div class=\"charts\">\n");
        addFigure(charts.overTime("ranges", lines(
                series("memory maps", sample -> sample.stats().memoryRanges()),
                series("file map", sample -> sample.stats().fileRanges()))),
                "Ranges. The memory maps fill up with writes until a flush empties them; in the"
                        + " file map, neighbours that lie in sequence are one range. Compaction"
                        + " writes in the order of the device and so makes it shrink.");
        addFigure(charts.overTime("bytes", lines(
                series("buffered", sample -> sample.stats().bufferedBytes()),
                series("limit", sample -> options.store().bufferBytes()))),
                "Bytes accepted and not yet written out, overwritten ones included: what the"
                        + " buffers take at most. At the limit a write waits for a flush.");
        List<XYSeries> memory = new ArrayList<>(List.of(
                series("in use", sample -> sample.stats().recordBytes()),
                series("as last swept", sample -> sample.stats().sweptBytes())));
        if (options.store().memoryLimit() < 4 * replay.store().stats().peaks().recordBytes()) {
            memory.add(series("limit", sample -> options.store().memoryLimit()));
        }
        addFigure(charts.overTime("native bytes", lines(memory.toArray(XYSeries[]::new))),
                "Native memory of all maps, those of snapshots included: reckoned from the number"
                        + " of ranges, and as the library itself counted when it last swept, which"
                        + " it does at most every 5 seconds. A write is refused at the limit; the"
                        + " flush that follows goes beyond it for a moment.");
        addFigure(charts.overTime("bytes", lines(
                series("native bytes per range", Report::bytesPerRange))),
                "Native bytes per range: " + StoreStats.RANGE_BYTES + " for one in a file, "
                        + StoreStats.BUFFER_BYTES + " more for one with a buffer.");
        addFigure(charts.overTime("requests per second", lines(speed())),
                "Requests served per second, all checks and the work in the background included.");
        addFigure(charts.byCategory("percentile", "microseconds", percentiles()),
                "How long operations take; of the flushes, those in the background. The slowest"
                        + " writes had to flush, or to wait for one. The files are in the system's"
                        + " cache: nothing waits for a disk.");
        add("</div>\n");
    }

    private void addLatencies() {
        add("<h2>Latencies in microseconds</h2>\n<table><tr><th>operation</th>"
                + "<th class=\"n\">count</th><th class=\"n\">mean</th>");
        for (double percentile : PERCENTILES) {
            add("<th class=\"n\">%s</th>", name(percentile));
        }
        add("</tr>\n");
        for (Operation operation : Operation.values()) {
            Histogram nanos = replay.latencies().of(operation);
            add("<tr><td>%s</td><td class=\"n\">%,d</td><td class=\"n\">%,.1f</td>", operation,
                    nanos.getTotalCount(), nanos.getMean() / 1e3);
            for (double percentile : PERCENTILES) {
                add("<td class=\"n\">%,.1f</td>", nanos.getValueAtPercentile(percentile) / 1e3);
            }
            add("</tr>\n");
        }
        add("</table>\n");
    }

    private void addPictures(List<List<MappedRange>> layouts) {
        if (layouts.isEmpty()) {
            return;
        }
        List<AddressPicture> pictures = layouts.stream()
                .map(layout -> new AddressPicture(layout, options.store().sectorSize())).toList();
        Map<Integer, Color> colours = AddressPicture.colours(pictures);
        add("<h2>The device, by segment</h2>\n<p>From left to right and from top to bottom, every"
                + " cell stands for %,d bytes of the device, in the colour of the segment file"
                + " that has most of them. What was never written is left out, and long holes are"
                + " shortened.</p>\n<p>",
                pictures.get(0).cellBytes());
        colours.forEach((number, colour) -> add("<span class=\"swatch\" style=\"background:#%06x\">"
                + "</span>%s", colour.getRGB() & 0xFFFFFF,
                number == AddressPicture.HOLE ? "discarded" : "segment " + number));
        add("</p>\n");
        String[] captions = {"Before the last compaction.", "After it."};
        for (int i = 0; i < pictures.size(); i++) {
            addFigure(charts.cells(pictures.get(i).cells(), AddressPicture.COLUMNS, colours),
                    captions[i]);
        }
    }

    private Map<String, String> settings() {
        StoreSettings store = options.store();
        Map<String, String> settings = new LinkedHashMap<>();
        settings.put("trace", options.trace().toString());
        settings.put("repetitions", String.valueOf(options.repeat()));
        settings.put("seed", String.valueOf(options.seed()));
        settings.put("sector size", number(store.sectorSize()));
        settings.put("segment size", number(store.segmentBytes()));
        settings.put("buffer size", number(store.bufferBytes()));
        settings.put("memory limit", number(store.memoryLimit()));
        settings.put("levels of a map", number(store.height()));
        settings.put("requests between flushes", number(options.flushEvery()));
        settings.put("requests between compactions", number(options.compactEvery()));
        settings.put("requests between snapshots", number(options.snapshotEvery()));
        settings.put("flushes that are killed", options.failFlushEvery() == 0
                ? "none" : "one in " + options.failFlushEvery());
        settings.put("Java", Runtime.version().toString());
        settings.put("processors", number(Runtime.getRuntime().availableProcessors()));
        return settings;
    }

    private XYSeries series(String name, ToDoubleFunction<Sample> value) {
        XYSeries series = new XYSeries(name);
        samples.forEach(sample -> series.add(sample.seconds(), value.applyAsDouble(sample)));
        return series;
    }

    private static XYSeriesCollection lines(XYSeries... series) {
        XYSeriesCollection lines = new XYSeriesCollection();
        for (XYSeries line : series) {
            lines.addSeries(line);
        }
        return lines;
    }

    private static double bytesPerRange(Sample sample) {
        StoreStats stats = sample.stats();
        return stats.ranges() == 0 ? 0 : (double) stats.recordBytes() / stats.ranges();
    }

    private XYSeries speed() {
        XYSeries series = new XYSeries("requests per second");
        for (int i = 1; i < samples.size(); i++) {
            Sample last = samples.get(i - 1);
            Sample sample = samples.get(i);
            if (sample.requests() > last.requests()) {
                series.add(sample.seconds(), (sample.requests() - last.requests())
                        / (sample.seconds() - last.seconds()));
            }
        }
        return series;
    }

    private DefaultCategoryDataset percentiles() {
        DefaultCategoryDataset dataset = new DefaultCategoryDataset();
        for (Operation operation : Operation.values()) {
            Histogram nanos = replay.latencies().of(operation);
            for (double percentile : PERCENTILES) {
                if (nanos.getTotalCount() > 0) {
                    dataset.addValue(nanos.getValueAtPercentile(percentile) / 1e3,
                            operation, name(percentile));
                }
            }
        }
        return dataset;
    }

    private static String name(double percentile) {
        return percentile == 100 ? "max" : new BigDecimal(String.valueOf(percentile))
                .stripTrailingZeros().toPlainString() + "%";
    }

    private static String number(long value) {
        return String.format(Locale.ROOT, "%,d", value);
    }

    private void addFigure(String svg, String caption) {
        add("<figure>%s<figcaption>%s</figcaption></figure>\n", svg, escape(caption));
    }

    private void addTable(Map<String, String> rows) {
        add("<table>");
        rows.forEach((name, value) ->
                add("<tr><td>%s</td><td>%s</td></tr>\n", escape(name), escape(value)));
        add("</table>\n");
    }

    private void add(String format, Object... values) {
        html.append(String.format(Locale.ROOT, format, values));
    }

    private static String escape(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;");
    }
}
