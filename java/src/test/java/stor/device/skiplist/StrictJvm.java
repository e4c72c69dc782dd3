package stor.device.skiplist;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.regex.Pattern;

/**
 * Runs another JVM and fails if it fails, or if its output holds a report that {@link JvmOutput}
 * forbids, or does not hold what is expected. The arguments are those of the other JVM, after any number of {@code --says PATTERN}.
 */
public final class StrictJvm {
    private static final long PATIENCE_SECONDS = 120;

    private StrictJvm() {
    }

    /** Runs the other JVM and ends this one with the verdict as its exit status. */
    public static void main(String[] args) throws IOException, InterruptedException {
        List<Pattern> expected = new ArrayList<>();
        int first = 0;
        for (; args[first].equals("--says"); first += 2) {
            expected.add(Pattern.compile(args[first + 1]));
        }
        Process jvm = builder(List.of(args).subList(first, args.length)).start();
        JvmOutput output = new JvmOutput();
        try (BufferedReader lines = new BufferedReader(
                new InputStreamReader(jvm.getInputStream(), StandardCharsets.UTF_8))) {
            for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                String shown = output.show(line);
                if (shown != null) {
                    System.out.println(shown);
                    expected.removeIf(text -> text.matcher(shown).find());
                }
            }
        }
        int status = jvm.waitFor();
        System.out.println("exit status " + status + ", JNI warnings and leak reports: "
                + output.allowed() + " allowed, " + output.forbidden() + " forbidden"
                + (expected.isEmpty() ? "" : "; not said: " + expected));
        boolean good = output.forbidden() == 0 && expected.isEmpty();
        System.exit(status != 0 || good ? status : 1);
    }

    /**
     * What a JVM left behind.
     *
     * @param output its standard output and error stream
     */
    record Ended(int status, String output) {
    }

    /** Runs a JVM of this kind in a folder; one that does not end is ended after two minutes. */
    static Ended run(Path folder, List<String> args) throws IOException, InterruptedException {
        Path output = Files.createTempFile("jvm", null);
        Process jvm = builder(args).directory(folder.toFile()).redirectOutput(output.toFile())
                .start();
        try {
            if (!jvm.waitFor(PATIENCE_SECONDS, TimeUnit.SECONDS)) {
                return new Ended(-1, "does not end: " + Files.readString(output));
            }
            return new Ended(jvm.exitValue(), Files.readString(output));
        } finally {
            jvm.destroyForcibly();
            Files.delete(output);
        }
    }

    /**
     * Prepares a JVM of this kind, its error stream joined to its output. It says nothing of its
     * own about native code.
     */
    private static ProcessBuilder builder(List<String> args) {
        List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.add("--enable-native-access=ALL-UNNAMED");
        if (Runtime.version().feature() >= 24) {
            command.add("--sun-misc-unsafe-memory-access=allow");
        }
        command.addAll(args);
        return new ProcessBuilder(command).redirectErrorStream(true);
    }
}
