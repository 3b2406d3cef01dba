#include "audio/xj_motion_net.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace xj::motion {

std::vector<float> readFloats(const std::string& path, size_t count) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot open " + path);
  struct stat st {};
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
    std::fclose(f);
    throw std::runtime_error("short read " + path);
  }
  const auto bytes = static_cast<unsigned long long>(st.st_size);
  if (bytes != count * sizeof(float)) {
    std::fclose(f);
    throw std::runtime_error(path + ": " + std::to_string(bytes / sizeof(float)) + " floats, expected " +
                             std::to_string(count));
  }
  std::vector<float> out(count);
  const size_t got = count ? std::fread(out.data(), sizeof(float), count, f) : 0;
  std::fclose(f);
  if (got != count) throw std::runtime_error("short read " + path);
  return out;
}

double jsonNum(const std::string& text, const std::string& key, bool required, double fallback) {
  const std::string quoted = "\"" + key + "\"";
  const size_t at = text.find(quoted);
  if (at == std::string::npos) {
    if (required) throw std::runtime_error("meta.json: missing " + key);
    return fallback;
  }
  const size_t colon = text.find(':', at + quoted.size());
  if (colon == std::string::npos) throw std::runtime_error("meta.json: bad " + key);
  const char* start = text.c_str() + colon + 1;
  char* end = nullptr;
  const double v = std::strtod(start, &end);
  if (end == start) throw std::runtime_error("meta.json: bad " + key);
  return v;
}

const char* coremlComputeUnits(const std::string& ep) {
  const std::string units = ep.size() < 8 ? std::string() : ep.substr(7);
  if (units == "cpu") return "CPUOnly";
  if (units == "gpu") return "CPUAndGPU";
  if (units == "ane") return "CPUAndNeuralEngine";
  return "ALL";
}

void Net::fail(const std::string& what) const { throw std::runtime_error("xj_motion: " + file + ": " + what); }

void Net::open(Ort::Env& env, const std::string& path, int threads, const std::string& ep,
               const std::string& cacheDir) {
  file = path;
  const bool coreml = ep.rfind("coreml", 0) == 0;
  if (!ep.empty() && !coreml) throw std::runtime_error("xj_motion: unknown ep '" + ep + "'");
  if (FILE* f = std::fopen(path.c_str(), "rb")) std::fclose(f);
  else throw std::runtime_error("cannot open " + path);

  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  const char* spin = std::getenv("XJ_ORT_SPIN");
  if (!(spin && spin[0] == '1')) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  if (coreml) {
    // CoreML is an Apple platform interface; a runtime built without it says
    // so here, and the model is refused rather than moved to another provider.
    try {
      options.AppendExecutionProvider("CoreML", {{"ModelFormat", "MLProgram"},
                                                 {"MLComputeUnits", coremlComputeUnits(ep)},
                                                 {"ModelCacheDirectory", cacheDir}});
    } catch (const Ort::Exception& e) {
      throw std::runtime_error("xj_motion: ep '" + ep + "': the CoreML provider is not available here: " +
                               e.what());
    }
  }
  try {
    session = std::make_unique<Ort::Session>(env, path.c_str(), options);
  } catch (const Ort::Exception& e) {
    fail(e.what());
  }

  Ort::AllocatorWithDefaultOptions alloc;
  const size_t nIn = session->GetInputCount();
  inNames.clear();
  inShapes.clear();
  inElems.clear();
  for (size_t i = 0; i < nIn; ++i) {
    inNames.emplace_back(session->GetInputNameAllocated(i, alloc).get());
    auto info = session->GetInputTypeInfo(i);
    auto tensor = info.GetTensorTypeAndShapeInfo();
    if (tensor.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT)
      fail("input '" + inNames.back() + "' is not float32");
    std::vector<int64_t> shape = tensor.GetShape();
    size_t elems = 1;
    for (auto& d : shape) {
      if (d < 1) d = 1;
      elems *= static_cast<size_t>(d);
    }
    inShapes.push_back(std::move(shape));
    inElems.push_back(elems);
  }
  if (session->GetOutputCount() < 1) fail("the graph has no output");
  outName = session->GetOutputNameAllocated(0, alloc).get();

  memInfo = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  binding = std::make_unique<Ort::IoBinding>(*session);
  runOptions = Ort::RunOptions();
  inValues.clear();
  for (size_t i = 0; i < nIn; ++i) inValues.emplace_back(nullptr);
  boundIn.assign(nIn, nullptr);
  outValue = Ort::Value(nullptr);
  boundOut = nullptr;
  boundOutSize = 0;
}

void Net::run(const float* const* inputs, const size_t* sizes, float* out, size_t outSize, const int64_t* outShape,
              size_t outRank) {
  try {
    for (size_t i = 0; i < inNames.size(); ++i) {
      if (sizes[i] != inElems[i])
        fail("input '" + inNames[i] + "' declares " + std::to_string(inElems[i]) + " floats, the model feeds it " +
             std::to_string(sizes[i]));
      if (inputs[i] == boundIn[i]) continue;
      inValues[i] = Ort::Value::CreateTensor<float>(memInfo, const_cast<float*>(inputs[i]), sizes[i],
                                                    inShapes[i].data(), inShapes[i].size());
      binding->BindInput(inNames[i].c_str(), inValues[i]);
      boundIn[i] = inputs[i];
    }
    if (out != boundOut || outSize != boundOutSize) {
      outValue = Ort::Value::CreateTensor<float>(memInfo, out, outSize, outShape, outRank);
      binding->BindOutput(outName.c_str(), outValue);
      boundOut = out;
      boundOutSize = outSize;
    }
    session->Run(runOptions, *binding);
  } catch (const Ort::Exception& e) {
    fail(e.what());
  }
}

}  // namespace xj::motion
