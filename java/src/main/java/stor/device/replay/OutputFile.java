package stor.device.replay;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.UUID;

/**
 * A file that the program writes. Takes the place of an older one of its kind only, known by a mark
 * near its start, and only when it is complete: whatever else is there stays as it is.
 */
final class OutputFile {
    private static final int MARK_WITHIN = 1024;

    private final String option;
    private final Path path;
    private final String mark;

    /** Names the option that gave the path, for messages. */
    OutputFile(String option, Path path, String mark) {
        this.option = option;
        this.path = path;
        this.mark = mark;
    }

    Path path() {
        return path;
    }

    /** Refuses what cannot be written, or must not, before any work is done. */
    void check() throws IOException {
        checkTarget();
        Path probe = temporary();
        try {
            Files.newOutputStream(probe, StandardOpenOption.CREATE_NEW).close();
        } catch (IOException e) {
            throw refusal("cannot be written, as " + folder() + " "
                    + (Files.isDirectory(folder()) ? "takes no files" : "is no folder"));
        } finally {
            Files.deleteIfExists(probe);
        }
    }

    /** Writes the file. */
    void write(String text) throws IOException {
        Path part = temporary();
        try {
            Files.writeString(part, text, StandardOpenOption.CREATE_NEW);
            checkTarget();
            Files.move(part, path, StandardCopyOption.ATOMIC_MOVE);
        } finally {
            Files.deleteIfExists(part);
        }
    }

    private void checkTarget() throws IOException {
        if (path.getFileName() == null) {
            throw refusal("is no file");
        }
        if (!Files.exists(path, LinkOption.NOFOLLOW_LINKS)) {
            return;
        }
        if (!Files.isRegularFile(path, LinkOption.NOFOLLOW_LINKS)) {
            throw refusal("exists and is no regular file");
        }
        try (InputStream file = Files.newInputStream(path)) {
            String start = new String(file.readNBytes(MARK_WITHIN), StandardCharsets.ISO_8859_1);
            if (!start.isEmpty() && !start.contains(mark)) {
                throw refusal("exists and was not written by this program");
            }
        }
    }

    private Path folder() {
        return path.toAbsolutePath().getParent();
    }

    private Path temporary() {
        return folder().resolve("." + path.getFileName() + "." + UUID.randomUUID() + ".part");
    }

    private IOException refusal(String reason) {
        return new IOException(option + ": " + path + ": " + reason
                + " (expected: a new file, or one that this program wrote)");
    }
}
