// JSON evaluator cost on a 10,000-item favorites tree (100 categories of 100
// catalog objects), beside the irreducible work of the same run: encoding
// the text to UTF-8 once.
//
//   BM_Utf8EncodeOnly       the String -> UTF-8 conversion of the text
//   BM_EvaluateTree         one evaluation of the whole text
//   BM_EvaluateAndReadTree  evaluation, then every item read the way the
//                           favorites input reads it: properties as text, each
//                           category's children re-evaluated from their text form
#include <benchmark/benchmark.h>

#include "qz/platform/gd.h"

namespace {

using namespace kiv;

String makeTree(int categories, int perCategory) {
    String text = L"[";
    for (int c = 0; c < categories; ++c) {
        if (c) text += L",";
        text += L"{\"type\":1,\"name\":\"Category " + std::to_wstring(c) + L"\",\"children\":[";
        for (int i = 0; i < perCategory; ++i) {
            if (i) text += L",";
            text += L"{\"type\":0,\"path\":\"/shared/Department " + std::to_wstring(c) + L"/Reports/Quarterly report " +
                    std::to_wstring(i) + L"\"}";
        }
        text += L"]}";
    }
    text += L"]";
    return text;
}

const String& tree() {
    static const String t = makeTree(100, 100);
    return t;
}

std::size_t readLevel(GDExpressionEvaluator& ev, const String& text) {
    GDVariant v;
    if (!ev.evaluateExpression(text, text.size(), v, 1)) return 0;
    auto* arr = dynamic_cast<IGDRandomAccessContainer*>(v.getValue() ? v.getValue()->resolveReferences() : nullptr);
    if (!arr) return 0;
    std::size_t items = 0;
    GDContext& ctx = ev.getContext();
    for (std::size_t i = 0; i < arr->getCount(); ++i) {
        GDVariant e;
        if (!arr->getElement(i, e) || !e.getValue()) continue;
        auto* bag = dynamic_cast<IGDReadablePropertyBag*>(e.getValue()->resolveReferences());
        if (!bag) continue;
        GDAdjustableSizeVariant type, prop;
        if (!bag->getProperty(ctx, GDPropertyKey(L"type"), type)) continue;
        ++items;
        if (GDTypeConversions::toString(ctx, type.getReferencedValue()) == L"0") {
            if (bag->getProperty(ctx, GDPropertyKey(L"path"), prop))
                benchmark::DoNotOptimize(GDTypeConversions::toString(ctx, prop.getReferencedValue()));
        } else {
            if (bag->getProperty(ctx, GDPropertyKey(L"name"), prop))
                benchmark::DoNotOptimize(GDTypeConversions::toString(ctx, prop.getReferencedValue()));
            if (bag->getProperty(ctx, GDPropertyKey(L"children"), prop))
                items += readLevel(ev, GDTypeConversions::toString(ctx, prop.getReferencedValue()));
        }
    }
    return items;
}

void BM_Utf8EncodeOnly(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(tree().toUtf8());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tree().size()));
}
BENCHMARK(BM_Utf8EncodeOnly)->Unit(benchmark::kMillisecond);

void BM_EvaluateTree(benchmark::State& state) {
    GDExpressionEvaluator ev;
    for (auto _ : state) {
        GDVariant v;
        benchmark::DoNotOptimize(ev.evaluateExpression(tree(), tree().size(), v, 1));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tree().size()));
}
BENCHMARK(BM_EvaluateTree)->Unit(benchmark::kMillisecond);

void BM_EvaluateAndReadTree(benchmark::State& state) {
    GDExpressionEvaluator ev;
    std::size_t items = 0;
    for (auto _ : state) items = readLevel(ev, tree());
    state.counters["items"] = static_cast<double>(items);
}
BENCHMARK(BM_EvaluateAndReadTree)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
