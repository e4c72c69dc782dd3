package stor.device.bench;

import java.nio.file.Path;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/** What the command line asks for. */
record Options(int warmUpRounds, int rounds, int ranges, int gcRanges, List<String> cases,
        String out, Path trace) {
    private static final String USAGE = "usage: RangeMapBenchmark [--warm-up N] [--rounds N]"
            + " [--ranges N] [--gc-ranges N] [--cases a,b,c] [--out FILE] TRACE\n";
    private static final Map<String, String> DEFAULTS = Map.of("--warm-up", "3", "--rounds", "9",
            "--ranges", "300000", "--gc-ranges", "3000000", "--cases",
            "trace,insert,overwrite,find,floor,last,readers-2,mixed-2,held", "--out", "");
    // Fewer would have no room for the longest request.
    private static final int LEAST_RANGES = 3;

    Options {
        if (warmUpRounds < 0 || rounds < 1 || ranges < LEAST_RANGES || gcRanges < 1) {
            throw new IllegalArgumentException("a number is too small");
        }
    }

    /** Reads the command line; an {@link IllegalArgumentException} says how it is to be. */
    static Options parse(String... args) {
        try {
            Map<String, String> values = new HashMap<>(DEFAULTS);
            for (int i = 0; i < args.length - 1; i += 2) {
                if (values.replace(args[i], args[i + 1]) == null) {
                    throw new IllegalArgumentException(args[i]);
                }
            }
            if (args.length % 2 == 0) {
                throw new IllegalArgumentException("no trace");
            }
            return new Options(Integer.parseInt(values.get("--warm-up")),
                    Integer.parseInt(values.get("--rounds")),
                    Integer.parseInt(values.get("--ranges")),
                    Integer.parseInt(values.get("--gc-ranges")),
                    List.of(values.get("--cases").split(",")), values.get("--out"),
                    Path.of(args[args.length - 1]));
        } catch (IllegalArgumentException e) {
            throw new IllegalArgumentException(USAGE + e.getMessage(), e);
        }
    }
}
