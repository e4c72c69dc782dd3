package stor.device.replay;

import java.io.FileDescriptor;
import java.io.FileInputStream;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.Map;
import java.util.Set;
import java.util.TreeSet;

/**
 * Reads a block trace in one pass, in one of the formats of {@link TraceFormat}, and gives those of
 * its requests that are asked for. Comments begin with {@code #}. Where a trace has several
 * devices, each gets a part of one large device, in the order in which they come up.
 */
public final class TraceReader implements AutoCloseable {
    /** Standard input in the place of a path. */
    static final Path STANDARD_INPUT = Path.of("-");
    private static final int MAX_DEVICES = 1 << 16;
    private static final int SHOWN_DEVICES = 10;

    private final Path path;
    private final Selection selection;
    private final LineReader lines;
    private final long size;
    private final Map<String, Integer> devices = new HashMap<>();
    private final Set<String> otherDevices = new TreeSet<>();
    private TraceFormat format;
    private String header;
    private boolean started;
    private long start;
    private long lastMicros;
    private volatile long badLines;

    /**
     * Which requests of a trace are wanted.
     *
     * @param format the name of the format, or null to have it found out
     * @param action the action of {@code blkparse} that counts
     * @param device the one device, or null for all
     * @param fromMicros where the window begins, from the first request of the trace on
     * @param toMicros where it ends, itself not in the window
     * @param skipBad whether lines that make no sense are counted instead of refused
     */
    record Selection(String format, char action, String device, long fromMicros, long toMicros,
            boolean skipBad) {
        static final Selection ALL = new Selection(null, 'Q', null, 0, Long.MAX_VALUE, false);
    }

    /**
     * Opens a trace of all whose requests are wanted.
     *
     * @param path the file
     * @throws IOException if it cannot be read
     */
    public TraceReader(Path path) throws IOException {
        this(path, Selection.ALL);
    }

    TraceReader(Path path, Selection selection) throws IOException {
        this.path = path;
        this.selection = selection;
        if (selection.format != null) {
            TraceFormat.named(selection.format, null, selection.action);
        }
        size = Files.isRegularFile(path) ? Files.size(path) : 0;
        InputStream file = open(path);
        try {
            lines = new LineReader(file);
        } catch (IOException e) {
            file.close();
            throw new IOException(path + ": " + e.getMessage(), e);
        }
    }

    /**
     * Reads the next request.
     *
     * @return the request, or null at the end of the trace
     * @throws IOException if the file cannot be read, or says what is no request
     */
    public Request next() throws IOException {
        while (true) {
            TraceFormat.Entry entry;
            try {
                String line = lines.next();
                if (line == null) {
                    return null;
                }
                line = line.strip();
                if (line.isEmpty() || line.startsWith("#") || isHeader(line)) {
                    continue;
                }
                entry = parse(line);
            } catch (IOException e) {
                throw failure(e, "");
            } catch (IllegalArgumentException e) {
                if (!selection.skipBad) {
                    throw failure(e, "; --skip-bad goes on without such lines");
                }
                badLines++;
                continue;
            }
            Request request = entry == null ? null : select(entry);
            if (request != null) {
                return request;
            }
        }
    }

    /** Tells how much of the file has been read, between 0 and 1; NaN if nobody can know. */
    double fractionRead() {
        return size == 0 ? Double.NaN : (double) lines.bytesTaken() / size;
    }

    /** Counts the lines that were skipped because they make no sense. */
    long badLines() {
        return badLines;
    }

    /** Counts the devices that the requests went to. */
    int devices() {
        return devices.size();
    }

    /** Says why there was no request at all. */
    String whyNone() {
        if (!started) {
            return badLines > 0 ? "none of its " + badLines + " lines makes sense"
                    : "no request in it" + (format == null ? "" : format.hint());
        }
        if (devices.isEmpty() && !otherDevices.isEmpty()) {
            return "no request for device '" + selection.device + "' (expected: "
                    + String.join(", ", otherDevices) + (otherDevices.size() < SHOWN_DEVICES
                            ? ")" : " or another)");
        }
        return "no request in the window; the trace lasts " + lastMicros / 1e6 + " seconds";
    }

    @Override
    public void close() throws IOException {
        lines.close();
    }

    private static InputStream open(Path path) throws IOException {
        if (path.equals(STANDARD_INPUT)) {
            return new FileInputStream(FileDescriptor.in);
        }
        if (Files.isDirectory(path)) {
            throw new IOException(path + ": is a folder (expected: a trace)");
        }
        try {
            // Not Files.newInputStream, which seeks where it reads from a pipe.
            return new FileInputStream(path.toFile());
        } catch (FileNotFoundException e) {
            // Its message has the path and the system's reason.
            throw new IOException(e.getMessage(), e);
        }
    }

    private boolean isHeader(String line) {
        if (format == null && header == null && TraceFormat.isHeader(line)) {
            header = line;
            return true;
        }
        return false;
    }

    private TraceFormat.Entry parse(String line) {
        if (format == null) {
            format = selection.format == null
                    ? TraceFormat.of(line, header, selection.action)
                    : TraceFormat.named(selection.format, header, selection.action);
        }
        return format.parse(line);
    }

    /** Gives the request with its place on the large device, or null if it is not wanted. */
    private Request select(TraceFormat.Entry entry) throws IOException {
        Request request = entry.request();
        if (!started) {
            started = true;
            start = request.micros();
        }
        if (selection.device != null && !entry.device().equals(selection.device)) {
            if (otherDevices.size() < SHOWN_DEVICES) {
                otherDevices.add(entry.device());
            }
            return null;
        }
        long micros = request.micros() - start;
        lastMicros = Math.max(lastMicros, micros);
        // Some traces are not in order: without a window, what is older than the first counts, too.
        boolean isTooEarly = selection.fromMicros > 0 && micros < selection.fromMicros;
        if (isTooEarly || micros >= selection.toMicros) {
            return null;
        }
        return new Request(request.kind(), place(entry.device()) * TraceFormat.MAX_DEVICE_BYTES + request.offset(),
                request.length(), micros);
    }

    private int place(String device) throws IOException {
        Integer place = devices.get(device);
        if (place == null) {
            place = devices.size();
            if (place == MAX_DEVICES) {
                throw failure(new IllegalArgumentException("device: '"
                        + TraceFormat.shown(device) + "' (expected: at most "
                        + MAX_DEVICES + " devices)"), "; --device names one");
            }
            devices.put(device, place);
        }
        return place;
    }

    private IOException failure(Exception reason, String hint) {
        return new IOException(
                path + ":" + lines.lineNumber() + ": " + reason.getMessage() + hint, reason);
    }
}
