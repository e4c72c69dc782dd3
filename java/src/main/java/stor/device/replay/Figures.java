package stor.device.replay;

import com.google.gson.GsonBuilder;
import com.google.gson.JsonObject;
import com.google.gson.JsonParseException;
import com.google.gson.JsonParser;
import com.google.gson.JsonPrimitive;
import java.io.IOException;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.TreeSet;

/**
 * The figures of a run, in sections: the same for the page, the terminal and the JSON file, and in
 * the form of the latter what two runs are compared by.
 */
final class Figures {
    /** Stands at the beginning of a JSON file, and tells it from others. */
    static final String MARK = "\"program\": \"block store replay\"";

    private static final int MAX_TEXT = 30;

    private final List<Section> sections = new ArrayList<>();

    /** What a figure counts. */
    enum Unit {
        COUNT,
        BYTES,
        SHARE,
        FACTOR,
        SECONDS,
        PER_SECOND,
        BYTES_PER_SECOND,
        MICROSECONDS,
        TEXT
    }

    /** One figure: its name in the JSON file, its name for people, and what to know about it. */
    record Figure(String key, String label, Object value, Unit unit, String note) {
        /** Writes the value with its unit. */
        String text() {
            double number = value instanceof Number ? ((Number) value).doubleValue() : 0;
            return switch (unit) {
                case COUNT -> String.format(Locale.ROOT, "%,.0f", number);
                case BYTES -> String.format(Locale.ROOT, number < 1024 ? "%,.0f bytes"
                        : "%,.0f bytes (%s)", number, ShortNumbers.shortenBytes(number));
                case SHARE -> String.format(Locale.ROOT, "%.1f %%", 100 * number);
                case FACTOR -> String.format(Locale.ROOT, "%.2f", number);
                case SECONDS -> String.format(Locale.ROOT, "%,.1f s", number);
                case PER_SECOND -> String.format(Locale.ROOT, "%,.1f/s", number);
                case BYTES_PER_SECOND -> ShortNumbers.shortenBytes(number) + "/s";
                case MICROSECONDS -> String.format(Locale.ROOT, "%,.1f µs", number);
                case TEXT -> value.toString();
            };
        }
    }

    /** Figures that belong together. */
    record Section(String key, String title, List<Figure> figures) {
        Section add(String name, String label, Object value, Unit unit) {
            return add(name, label, value, unit, "");
        }

        Section add(String name, String label, Object value, Unit unit, String note) {
            figures.add(new Figure(name, label, value, unit, note));
            return this;
        }

        /** Writes the figure of a name. */
        String text(String name) {
            return figures.stream().filter(figure -> figure.key.equals(name)).findFirst()
                    .map(Figure::text).orElse("");
        }
    }

    /** Begins a section. */
    Section section(String key, String title) {
        Section section = new Section(key, title, new ArrayList<>());
        sections.add(section);
        return section;
    }

    List<Section> sections() {
        return sections;
    }

    /** Writes all figures as JSON. */
    String json() {
        JsonObject json = new JsonObject();
        json.addProperty("program", "block store replay");
        for (Section section : sections) {
            JsonObject object = new JsonObject();
            for (Figure figure : section.figures) {
                object.add(figure.key, figure.value instanceof Number
                        ? new JsonPrimitive((Number) figure.value)
                        : new JsonPrimitive(figure.value.toString()));
            }
            json.add(section.key, object);
        }
        return new GsonBuilder().setPrettyPrinting().disableHtmlEscaping().create().toJson(json)
                + "\n";
    }

    /** Sets the figures of two JSON files side by side, as text. */
    static String compare(Path first, Path second) throws IOException {
        JsonObject left = read(first);
        JsonObject right = read(second);
        StringBuilder text = new StringBuilder();
        line(text, "", first.toString(), second.toString(), "second / first");
        TreeSet<String> missing = new TreeSet<>();
        for (String section : left.keySet()) {
            if (left.get(section).isJsonObject() && right.has(section)) {
                text.append(section).append('\n');
                compare(text, left.getAsJsonObject(section), right.getAsJsonObject(section));
            } else if (!right.has(section)) {
                missing.add(section);
            }
        }
        missing.forEach(section -> text.append(section).append(": only in the first\n"));
        return text.toString();
    }

    private static void compare(StringBuilder text, JsonObject left, JsonObject right) {
        TreeSet<String> names = new TreeSet<>(right.keySet());
        names.removeAll(left.keySet());
        List<String> all = new ArrayList<>(left.keySet());
        all.addAll(names);
        for (String name : all) {
            JsonPrimitive before = left.getAsJsonPrimitive(name);
            JsonPrimitive after = right.getAsJsonPrimitive(name);
            String ratio = "";
            if (before != null && after != null && before.isNumber() && after.isNumber()) {
                double from = before.getAsDouble();
                double to = after.getAsDouble();
                ratio = from == to ? "=" : from == 0 ? "" : String.format(Locale.ROOT, "%.3f",
                        to / from);
            } else if (before != null && before.equals(after)) {
                ratio = "=";
            }
            line(text, "  " + name, shown(before), shown(after), ratio);
        }
    }

    private static void line(StringBuilder text, String name, String left, String right,
            String ratio) {
        text.append(String.format(Locale.ROOT, "%-32s %30s %30s  %s%n", name, left, right, ratio)
                .replaceAll(" +(\\R)", "$1"));
    }

    private static String shown(JsonPrimitive value) {
        if (value == null) {
            return "-";
        }
        if (!value.isNumber()) {
            String text = value.getAsString();
            return text.length() <= MAX_TEXT ? text : text.substring(0, MAX_TEXT - 3) + "...";
        }
        double number = value.getAsDouble();
        return String.format(Locale.ROOT, number == Math.rint(number) ? "%,.0f" : "%,.3f", number);
    }

    private static JsonObject read(Path file) throws IOException {
        try {
            String text = Files.readString(file, StandardCharsets.UTF_8);
            if (text.contains(MARK)) {
                return JsonParser.parseString(text).getAsJsonObject();
            }
        } catch (NoSuchFileException e) {
            throw new IOException(file + ": no such file", e);
        } catch (JsonParseException | IllegalStateException | CharacterCodingException e) {
            // Reported below: it is not ours.
        }
        throw new IOException(file + ": was not written by --json (expected: the figures of a run)");
    }
}
