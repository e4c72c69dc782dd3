package stor.device.bench;

import java.io.PrintStream;
import java.util.ArrayList;
import java.util.EnumMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.stream.Collectors;

/** Collects what was measured, and shows it as tables or as JSON. */
final class Results {
    private static final List<Contender> RIVALS =
            List.of(Contender.TREE, Contender.SKIP_LIST, Contender.GUAVA);

    /** The one figure of which more is better. */
    static final String GAIN = "throughput of two threads / of one";

    private final Map<Figure, Map<Contender, List<Double>>> figures = new LinkedHashMap<>();

    /** What is measured: for a workload, with so many ranges in the map. */
    private record Figure(String workload, int ranges, String metric) {
    }

    void add(String workload, int ranges, Contender contender, String metric, double value) {
        figures.computeIfAbsent(new Figure(workload, ranges, metric),
                        figure -> new EnumMap<>(Contender.class))
                .computeIfAbsent(contender, any -> new ArrayList<>())
                .add(value);
    }

    /** Prints a table for each figure; a ratio below 1 is less than the rival's. */
    void print(PrintStream out) {
        figures.forEach((figure, values) -> {
            Map<Contender, Summary> summaries = summaries(values);
            out.printf(Locale.ROOT, "%n%s, %,d ranges%n%-22s %14s %14s %14s %7s %12s %9s %14s%n",
                    figure.workload(), figure.ranges(), figure.metric(), "median", "min", "max",
                    "rounds", "/ best rival", "/ TreeMap", "/ TreeRangeMap");
            double best = RIVALS.stream().filter(summaries::containsKey)
                    .mapToDouble(rival -> median(summaries, rival)).min().orElse(Double.NaN);
            summaries.forEach((contender, summary) -> out.printf(Locale.ROOT,
                    "%-22s %,14.2f %,14.2f %,14.2f %7d %12s %9s %14s%n", contender,
                    summary.median(), summary.min(), summary.max(), summary.rounds(),
                    ratio(summary, best), ratio(summary, median(summaries, Contender.TREE)),
                    ratio(summary, median(summaries, Contender.GUAVA))));
        });
    }

    /** Gives an array with an object for each figure of each map. */
    String json() {
        return figures.entrySet().stream()
                .flatMap(figure -> summaries(figure.getValue()).entrySet().stream()
                        .map(map -> json(figure.getKey(), map.getKey(), map.getValue())))
                .collect(Collectors.joining(",\n", "[\n", "\n]\n"));
    }

    private static String json(Figure figure, Contender contender, Summary summary) {
        return String.format(Locale.ROOT, "  {\"case\": \"%s\", \"map\": \"%s\", \"ranges\": %d, "
                + "\"metric\": \"%s\", \"median\": %.3f, \"min\": %.3f, \"max\": %.3f, "
                + "\"rounds\": %d}", figure.workload(), contender, figure.ranges(),
                figure.metric(), summary.median(), summary.min(), summary.max(),
                summary.rounds());
    }

    private static Map<Contender, Summary> summaries(Map<Contender, List<Double>> values) {
        Map<Contender, Summary> summaries = new EnumMap<>(Contender.class);
        values.forEach((contender, all) -> summaries.put(contender,
                Summary.of(all.stream().mapToDouble(Double::doubleValue).toArray())));
        return summaries;
    }

    private static double median(Map<Contender, Summary> summaries, Contender contender) {
        return summaries.containsKey(contender) ? summaries.get(contender).median() : Double.NaN;
    }

    private static String ratio(Summary summary, double rival) {
        return Double.isNaN(rival) ? "-"
                : String.format(Locale.ROOT, "%.2f", summary.median() / rival);
    }
}
