package stor.device.replay;

import java.io.BufferedReader;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.zip.GZIPInputStream;

/**
 * Reads a recorded block trace: gzip-compressed text, one request a line, in order of time:
 *
 * <pre>
 *   # a header line
 *   &lt;microseconds&gt; &lt;R|W|D&gt; &lt;offset&gt; &lt;length&gt;
 * </pre>
 */
final class TraceReader implements AutoCloseable {
    private static final int BUFFER_BYTES = 1 << 16;
    private static final int FIELDS = 4;

    private final Path path;
    private final FileInputStream file;
    private final BufferedReader lines;
    private long lineNumber;

    /** What a request does to its range. */
    enum Kind {
        READ,
        WRITE,
        DISCARD
    }

    /** One request: a range in bytes. */
    record Request(Kind kind, long offset, int length) {
    }

    TraceReader(Path path) throws IOException {
        this.path = path;
        file = new FileInputStream(path.toFile());
        try {
            lines = new BufferedReader(new InputStreamReader(
                    new GZIPInputStream(file, BUFFER_BYTES), StandardCharsets.US_ASCII));
        } catch (IOException e) {
            file.close();
            throw new IOException(path + ": " + e.getMessage(), e);
        }
    }

    /** Reads the next request, or null at the end of the trace. */
    Request next() throws IOException {
        String line;
        try {
            do {
                line = lines.readLine();
                lineNumber++;
            } while (line != null && line.startsWith("#"));
        } catch (IOException e) {
            throw malformed(e.getMessage(), e);
        }
        return line == null ? null : parse(line);
    }

    /** Tells how much of the file has been read, between 0 and 1. */
    double fractionRead() throws IOException {
        return (double) file.getChannel().position() / file.getChannel().size();
    }

    @Override
    public void close() throws IOException {
        lines.close();
    }

    private Request parse(String line) throws IOException {
        String[] fields = line.split(" ");
        if (fields.length != FIELDS) {
            throw malformed("'" + line + "' (expected: <microseconds> <R|W|D> <offset> <length>)",
                    null);
        }
        try {
            long offset = Long.parseLong(fields[2]);
            int length = Integer.parseInt(fields[3]);
            if (offset < 0 || length <= 0) {
                throw malformed(
                        "'" + line + "' (expected: offset >= 0, length > 0)", null);
            }
            return new Request(kind(fields[1]), offset, length);
        } catch (NumberFormatException e) {
            throw malformed("'" + line + "' (expected: decimal numbers)", e);
        }
    }

    private Kind kind(String letter) throws IOException {
        return switch (letter) {
            case "R" -> Kind.READ;
            case "W" -> Kind.WRITE;
            case "D" -> Kind.DISCARD;
            default -> throw malformed("kind: " + letter + " (expected: R, W or D)", null);
        };
    }

    private IOException malformed(String reason, Exception cause) {
        return new IOException(path + ":" + lineNumber + ": " + reason, cause);
    }
}
