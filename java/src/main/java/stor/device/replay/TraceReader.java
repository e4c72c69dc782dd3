package stor.device.replay;

import java.io.BufferedInputStream;
import java.io.BufferedReader;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.zip.GZIPInputStream;

/**
 * Reads a block trace, plain or compressed with gzip, in one of the formats of {@link TraceFormat}.
 * Both are told by the contents: compression by its magic number, the format by the first line that
 * is no comment. A comment begins with {@code #}.
 */
final class TraceReader implements AutoCloseable {
    private static final int BUFFER_BYTES = 1 << 13;
    private static final int GZIP_MAGIC = 0x1f8b;

    private final Path path;
    private final FileInputStream file;
    private final BufferedReader lines;
    private TraceFormat format;
    private long lineNumber;

    /** What a request does to its range. */
    enum Kind {
        READ,
        WRITE,
        DISCARD
    }

    /** One request: a range in bytes. */
    record Request(Kind kind, long offset, int length) {
        @Override
        public String toString() {
            return kind + " of " + length + " bytes at " + offset;
        }
    }

    TraceReader(Path path) throws IOException {
        this.path = path;
        file = new FileInputStream(path.toFile());
        try {
            lines = new BufferedReader(
                    new InputStreamReader(unpack(file), StandardCharsets.US_ASCII));
        } catch (IOException e) {
            file.close();
            throw new IOException(path + ": " + e.getMessage(), e);
        }
    }

    /** Reads the next request, or null at the end of the trace. */
    Request next() throws IOException {
        try {
            String line;
            do {
                line = lines.readLine();
                lineNumber++;
            } while (line != null && line.startsWith("#"));
            if (line == null) {
                return null;
            }
            if (format == null) {
                format = TraceFormat.of(line);
            }
            return format.parse(line);
        } catch (IOException | IllegalArgumentException e) {
            throw new IOException(path + ":" + lineNumber + ": " + e.getMessage(), e);
        }
    }

    /** Tells how much of the file has been read, between 0 and 1. */
    double fractionRead() throws IOException {
        long size = file.getChannel().size();
        return size == 0 ? 1 : (double) file.getChannel().position() / size;
    }

    @Override
    public void close() throws IOException {
        lines.close();
    }

    private static InputStream unpack(InputStream file) throws IOException {
        BufferedInputStream bytes = new BufferedInputStream(file, BUFFER_BYTES);
        bytes.mark(2);
        int magic = bytes.read() << Byte.SIZE | bytes.read();
        bytes.reset();
        return magic == GZIP_MAGIC ? new GZIPInputStream(bytes, BUFFER_BYTES) : bytes;
    }
}
